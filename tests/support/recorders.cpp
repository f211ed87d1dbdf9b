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

std::string os_failure_text(const std::string &action, const std::string &api_text, DWORD code)
{
    return "OS Failure: Windows could not " + action +
           "\n"
           "\n"
           "Velkora requested that Windows " +
           action +
           ", but Windows could not do so.\n"
           "Please report the full text of this message to Orvex so we can investigate its "
           "causes.\n"
           "In the meantime, you may wish to take the following steps to work around the "
           "problem:\n"
           "   * Disable parallel compilation if it is enabled\n"
           "   * Ensure you have sufficient memory to run Velkora.\n"
           "   * Ensure all service packs and patches from Microsoft are installed\n"
           "\n"
           "Technical details:\n"
           "   * API: " +
           api_text + "\n   * OS code: " + std::to_string(static_cast<int>(code)) + " (" +
           system_words(code) + ")\n";
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
