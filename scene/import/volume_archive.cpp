#include "scene/import/volume_archive.h"

#include <cstring>
#include <type_traits>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

[[noreturn]] void RefuseBytes() {
    Refuse("import", "the import process sent nonsense", "the file is damaged");
}

// Both directions of one field list: Writer appends what Reader takes off.
class Writer {
public:
    std::string bytes;

    template <typename Plain>
    requires std::is_trivially_copyable_v<Plain>
    void Field(const Plain& value) { bytes.append(reinterpret_cast<const char*>(&value), sizeof value); }
    void Field(const std::string& text) {
        Field(text.size());
        bytes += text;
    }
    template <typename Item>
    void Field(const std::vector<Item>& items) {
        Field(items.size());
        for (const Item& item : items) {
            Field(item);
        }
    }
    void Field(const SeriesInfo& info) { VisitSeries(*this, info); }

    template <typename Archive, typename Info>
    static void VisitSeries(Archive& archive, Info& info) {
        archive.Field(info.number);
        archive.Field(info.uid);
        archive.Field(info.modality);
        archive.Field(info.description);
        archive.Field(info.dims);
        archive.Field(info.note);
        archive.Field(info.is_default);
    }
};

class Reader {
public:
    explicit Reader(const std::string& bytes) : m_bytes(bytes) {}

    template <typename Plain>
    requires std::is_trivially_copyable_v<Plain>
    void Field(Plain& value) { std::memcpy(static_cast<void*>(&value), Take(sizeof value), sizeof value); }
    void Field(std::string& text) {
        std::size_t length = 0;
        Field(length);
        text.assign(Take(length), length);
    }
    template <typename Item>
    void Field(std::vector<Item>& items) {
        std::size_t count = 0;
        Field(count);
        if (count > m_bytes.size()) {
            RefuseBytes();
        }
        items.resize(count);
        for (Item& item : items) {
            Field(item);
        }
    }
    void Field(SeriesInfo& info) { Writer::VisitSeries(*this, info); }

private:
    const char* Take(std::size_t length) {
        if (length > m_bytes.size() - m_next) {
            RefuseBytes();
        }
        const char* const here = m_bytes.data() + m_next;
        m_next += length;
        return here;
    }

    const std::string& m_bytes;
    std::size_t m_next = 0;
};

template <typename Archive, typename Volume>
void VisitVolume(Archive& archive, Volume& volume) {
    archive.Field(volume.dims);
    archive.Field(volume.spacing_mm);
    archive.Field(volume.index_to_patient);
    archive.Field(volume.is_signed);
    archive.Field(volume.bits_stored);
    archive.Field(volume.min_value);
    archive.Field(volume.max_value);
    archive.Field(volume.rescale_slope);
    archive.Field(volume.rescale_intercept);
    archive.Field(volume.padding_value);
    archive.Field(volume.modality);
    archive.Field(volume.window_centre);
    archive.Field(volume.window_width);
    archive.Field(volume.source);
    archive.Field(volume.series);
    archive.Field(volume.series_number);
    archive.Field(volume.num_time_points);
    archive.Field(volume.warnings);
    archive.Field(volume.do_announced_slices_change);
}

}  // namespace

std::string Pack(const ImportedVolume& volume) {
    Writer writer;
    VisitVolume(writer, volume);
    return std::move(writer.bytes);
}

std::string Pack(const std::vector<SeriesInfo>& series) {
    Writer writer;
    writer.Field(series);
    return std::move(writer.bytes);
}

ImportedVolume UnpackVolume(const std::string& bytes) {
    ImportedVolume volume;
    Reader reader(bytes);
    VisitVolume(reader, volume);
    return volume;
}

std::vector<SeriesInfo> UnpackSeries(const std::string& bytes) {
    std::vector<SeriesInfo> series;
    Reader reader(bytes);
    reader.Field(series);
    return series;
}

}  // namespace scene::import
