#include "fileio.h"

void FileIO::initProtocolV3()
{
    layOutV3(m_protocolV3);
}

void FileIO::initProtocolV4()
{
    layOutV4(m_protocolV4);
}
