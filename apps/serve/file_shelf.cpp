#include "apps/serve/file_shelf.h"

#include <charconv>

namespace serve {

namespace {

constexpr std::chrono::minutes kKeep{10};

}  // namespace

std::string FileShelf::Put(ShelvedFile file) {
    m_Bytes += file.bytes.size();
    m_Files[++m_Last] = {std::move(file), std::chrono::steady_clock::now()};
    while (m_Bytes > m_MostBytes && m_Files.size() > 1) {
        m_Bytes -= m_Files.begin()->second.file.bytes.size();
        m_Files.erase(m_Files.begin());
    }
    return "/api/files/" + std::to_string(m_Last);
}

std::optional<ShelvedFile> FileShelf::Take(std::string_view number) {
    std::uint64_t wanted = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), wanted);
    const auto found = m_Files.find(wanted);
    if (error != std::errc() || end != number.data() + number.size() || found == m_Files.end()) {
        return std::nullopt;
    }
    ShelvedFile file = std::move(found->second.file);
    m_Bytes -= file.bytes.size();
    m_Files.erase(found);
    return file;
}

void FileShelf::Sweep() {
    const auto now = std::chrono::steady_clock::now();
    while (!m_Files.empty() && now - m_Files.begin()->second.since > kKeep) {
        m_Bytes -= m_Files.begin()->second.file.bytes.size();
        m_Files.erase(m_Files.begin());
    }
}

}  // namespace serve
