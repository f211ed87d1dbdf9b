#include "support/recorders.h"

#include <cctype>

namespace support
{

std::string system_words(DWORD code)
{
    char words[4096];
    DWORD length =
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, words, sizeof words, nullptr);
    if (length < 2)
        return "no additional information available";
    return std::string(words, length - 2);
}

std::string literal_regex(const std::string &text)
{
    std::string regex;
    for (char c : text) {
        if (ispunct(static_cast<unsigned char>(c)))
            regex += '\\';
        regex += c;
    }
    return regex;
}

std::string internal_error_regex(const std::string &message, const std::string &file)
{
    return "^Internal Error: Sub-system: THR, File: thr/" + literal_regex(file) +
           "\\.cpp, Line: \\d+\n" + literal_regex(message) + "\n$";
}

} // namespace support
