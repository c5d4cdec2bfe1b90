// Files made for clients, kept until they are fetched.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace serve {

struct ShelvedFile {
    std::string name;  // that the browser saves it under
    std::string_view type;
    std::string bytes;
};

// Each file is handed out once. What is not fetched within some minutes, or would make the shelf too full, is thrown
// away, the oldest first. Not for several threads at once.
class FileShelf {
public:
    explicit FileShelf(std::size_t most_bytes = std::size_t{512} << 20) : m_MostBytes(most_bytes) {}

    // The path that it is fetched by.
    std::string Put(ShelvedFile file);
    // By the path's last part; nothing when there is no such file any more.
    std::optional<ShelvedFile> Take(std::string_view number);
    void Sweep();

private:
    struct Kept {
        ShelvedFile file;
        std::chrono::steady_clock::time_point since;
    };

    std::size_t m_MostBytes;
    std::size_t m_Bytes = 0;
    std::uint64_t m_Last = 0;
    std::map<std::uint64_t, Kept> m_Files;  // oldest first
};

}  // namespace serve
