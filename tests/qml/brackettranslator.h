#ifndef BRACKETTRANSLATOR_H
#define BRACKETTRANSLATOR_H

#include <QString>
#include <QTranslator>

/// Puts every text that asks for a translation into <>.
class BracketTranslator : public QTranslator {
    Q_OBJECT

public:
    using QTranslator::QTranslator;

    QString translate(const char *context, const char *source, const char *disambiguation,
                      int n) const override;
    bool isEmpty() const override;
};

#endif // BRACKETTRANSLATOR_H
