#include "brackettranslator.h"

QString BracketTranslator::translate(const char * /*context*/, const char *source,
                                     const char * /*disambiguation*/, int /*n*/) const
{
    return QLatin1Char('<') + QString::fromUtf8(source) + QLatin1Char('>');
}

bool BracketTranslator::isEmpty() const
{
    return false;
}
