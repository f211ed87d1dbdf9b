// A folder of the test's own for files.
#ifndef THR_TESTS_SCRATCH_DIR_H
#define THR_TESTS_SCRATCH_DIR_H

#include <string>

namespace support
{

// A new empty folder below the system's folder for temporary files, removed with all its content
// at the end of the scope. What can't be removed then, after some tries, fails the test: something
// still holds it open.
class ScratchDir
{
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;

    // Absolute, backslashes, none at the end; plain ASCII when the system's folder is.
    const std::string &path() const { return m_path; }
    const std::wstring &wide_path() const { return m_wide_path; }
    std::string file(const std::string &name) const { return m_path + "\\" + name; }
    std::wstring file(const std::wstring &name) const { return m_wide_path + L"\\" + name; }

private:
    std::string m_path;
    std::wstring m_wide_path;
};

} // namespace support

#endif
