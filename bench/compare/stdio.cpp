// A straightforward, untuned cache: a map of buffers, and fseek, fwrite and fread on the caller's thread.
#include <cstring>
#include <deque>
#include <map>
#include <string>

#include "../common.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = false; // untuned code uses malloc's defaults

namespace {

class Stdio final : public Store {
public:
    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        m_dir = dir;
        m_layout = layout;
        m_inMemory.clear();
    }
    void Close() override {
        while (!m_files.empty())
            CloseFile(m_files.begin()->first);
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        File& file = OpenFile(place.file);
        std::vector<char>& kept = file.kept[place.block];
        kept.resize(m_layout.blockLen);
        std::memcpy(kept.data() + at, bytes, length);
        if (at + length < m_layout.blockLen)
            return;
        const long begin = long{place.block} * m_layout.blockLen;
        std::fseek(file.data, begin, SEEK_SET);
        Require(std::fwrite(kept.data(), m_layout.blockLen, 1, file.data) == 1, "fwrite failed");
        Require(std::fflush(file.data) == 0, "fflush failed");
        file.table[place.block] = begin;
        file.isChanged = true;
        LimitMemory(place);
    }
    void Flush() override {}

    const char* Read(Place place, uint32_t at, uint32_t length) override {
        File& file = OpenFile(place.file);
        if (const auto kept = file.kept.find(place.block); kept != file.kept.end()) {
            m_read.assign(kept->second.data() + at, kept->second.data() + at + length);
            return m_read.data();
        }
        std::vector<char>(length).swap(m_read);
        std::fseek(file.data, file.table.at(place.block) + at, SEEK_SET);
        Require(std::fread(m_read.data(), length, 1, file.data) == 1, "fread failed");
        return m_read.data();
    }
    void Release() override {
        for (auto& [index, file] : m_files)
            file.kept.clear();
        m_inMemory.clear();
    }

    void CloseFile(uint32_t index) override {
        File& file = m_files[index];
        std::fclose(file.data);
        if (file.isChanged) {
            FILE* table = std::fopen(TableOf(index).c_str(), "wb");
            for (const auto& entry : file.table)
                Require(std::fwrite(&entry, sizeof(entry), 1, table) == 1, "the table file failed");
            std::fclose(table);
        }
        m_files.erase(index);
    }

private:
    struct File {
        FILE* data = nullptr;
        bool isChanged = false;
        std::map<uint32_t, long> table;
        std::map<uint32_t, std::vector<char>> kept;
    };

    std::string PathOf(uint32_t index) const { return (m_dir / std::to_string(index)).string(); }
    std::string TableOf(uint32_t index) const { return PathOf(index) + ".table"; }
    File& OpenFile(uint32_t index) {
        File& file = m_files[index];
        if (file.data)
            return file;
        file.data = std::fopen(PathOf(index).c_str(), "r+b");
        if (!file.data)
            file.data = std::fopen(PathOf(index).c_str(), "w+b");
        Require(file.data, "fopen failed");
        if (FILE* table = std::fopen(TableOf(index).c_str(), "rb")) {
            for (std::pair<uint32_t, long> entry; std::fread(&entry, sizeof(entry), 1, table) == 1;)
                file.table.insert(entry);
            std::fclose(table);
        }
        return file;
    }
    void LimitMemory(Place newest) {
        m_inMemory.push_back(newest);
        if (m_inMemory.size() * m_layout.blockLen <= m_layout.memory)
            return;
        const Place oldest = m_inMemory.front();
        m_inMemory.pop_front();
        if (const auto file = m_files.find(oldest.file); file != m_files.end())
            file->second.kept.erase(oldest.block);
    }

    std::filesystem::path m_dir;
    Layout m_layout;
    std::map<uint32_t, File> m_files;
    std::deque<Place> m_inMemory;
    std::vector<char> m_read;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<Stdio>(); }

} // namespace bench
