// Output files that appear whole or not at all.
#pragma once

#include <string>
#include <string_view>

namespace scene {

// A file that is written under a temporary name beside its place and takes its place only by Commit(); destroyed
// before that, it leaves nothing behind and an older file of the name as it was. A place that is not a regular file (a
// pipe, a terminal) is written at Commit().
class OutputFile {
public:
    // Throws Error when the folder does not exist or cannot be written.
    explicit OutputFile(std::string path);
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Where to write. It ends like the path, so that writers that choose a format by the ending still do.
    const std::string& TemporaryPath() const { return m_Temporary; }
    // Appends to the temporary file. Throws Error.
    void Write(std::string_view bytes);
    // Moves the file to its place. Throws Error.
    void Commit();

private:
    std::string m_Path;
    std::string m_Temporary;
    bool m_Committed = false;
};

// A whole file at once. Throws Error.
void WriteFile(const std::string& path, std::string_view bytes);

// The whole content of a file of at most `limit_bytes`. Throws Error of the input kind.
std::string ReadFile(const std::string& path, std::size_t limit_bytes);

}  // namespace scene
