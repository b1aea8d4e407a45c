#include "fileio.h"

#include <cstdio>

QString FileIO::httpGet(QString url)
{
    Q_UNUSED(url)
    std::printf("[info]: httpGet is not built yet.\n");
    return {};
}

QString FileIO::httpPost(QString url, QString data)
{
    Q_UNUSED(url)
    Q_UNUSED(data)
    std::printf("[info]: httpPost is not built yet.\n");
    return {};
}

void FileIO::onReadyReadReply()
{
    std::printf("[info]: onReadyReadReply is not built yet.\n");
}
