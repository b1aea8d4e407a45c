#include "fileio.h"

#include <cstdlib>
#include <thread>

int FileIO::exe(QString cmd) const
{
    return std::system(cmd.toStdString().c_str());
}

void FileIO::threadExe(QString cmd, int index)
{
    // Deliberate: nothing joins the worker, so a command may outlive the program.
    // (tst_shell::commandOutlivesTheProgram)
    std::thread(&FileIO::exe2, this, cmd, index).detach();
}

void FileIO::exe2(QString cmd, int index)
{
    // Deliberate: the raw wait status, not the exit code; callers test it against 0 only.
    // (tst_shell::threadExeReportsTheRawStatus)
    emit threadExeFinish(exe(cmd), index);
}
