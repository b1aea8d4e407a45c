#include "check.h"
#include "fileio.h"
#include "quiet.h"
#include "shelloutput.h"

#include <cstdio>
#include <cstring>
#include <string>

// The output of the `ls` command, and the pattern that it is called with.
//
//   up to the first zero byte   the pattern
//   rest                        what the command prints

namespace {

std::string gPrinted;
std::string gCommand;

/// A simple model: the pieces of a text when up to `pieceSize` - 1 characters are read at a time.
QStringList piecesOf(const std::string &text, std::size_t pieceSize)
{
    QStringList pieces;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t lineFeed = text.find('\n', start);
        const std::size_t line = lineFeed == std::string::npos ? text.size() : lineFeed + 1;
        const std::size_t end = std::min(line, start + pieceSize - 1);
        std::string piece = text.substr(start, end - start);
        piece.resize(std::strlen(piece.c_str()));
        if (!piece.empty() && piece.back() == '\n')
            piece.pop_back();
        pieces.append(QString::fromLatin1(piece.c_str()));
        start = end;
    }
    return pieces;
}

/// The text as printf writes it: two percent signs make one.
std::string formatted(const std::string &text)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        result += text[i];
        if (text[i] == '%' && i + 1 < text.size() && text[i + 1] == '%')
            ++i;
    }
    return result;
}

} // namespace

// The linker makes these names.
// NOLINTBEGIN(bugprone-reserved-identifier)

extern "C" FILE *__wrap_popen(const char *text, const char * /*mode*/)
{
    gCommand = text;
    // A stream in memory cannot be empty.
    return gPrinted.empty() ? nullptr : fmemopen(gPrinted.data(), gPrinted.size(), "r");
}

extern "C" int __wrap_pclose(FILE *stream)
{
    return std::fclose(stream);
}

extern "C" void __wrap_perror(const char * /*text*/) { }

// NOLINTEND(bugprone-reserved-identifier)

int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    beQuiet();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string input(data, data + size);
    const std::size_t zero = std::min(input.find('\0'), input.size());
    const std::string pattern = input.substr(0, zero);
    gPrinted = input.substr(std::min(zero + 1, input.size()));

    FileIO io;
    const QStringList entries = io.getIpkList(QString::fromLatin1(pattern.c_str()));
    CHECK(gCommand == "ls " + formatted(pattern));
    CHECK(entries == piecesOf(gPrinted, 200));
    CHECK(io.getMcuBin().size() == piecesOf(gPrinted, 100).size());
    CHECK(gCommand == "ls /root/mcu/*.bin");
    return 0;
}
