// Common to LevelDB and RocksDB, whose interfaces are nearly the same.
#pragma once

#include <array>
#include <cstring>
#include <memory>

#include "../common.h"
#include "store.h"

namespace bench {

/// `Db` opens, writes and flushes. Each block is one value, so its pieces are collected before it is written.
/// Reads use an iterator: it returns a pointer to the value in the mapped table, without a copy. The iterator
/// is a snapshot, so each commit discards it.
template <class Db>
class LsmStore final : public Store {
public:
    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        m_dir = dir;
        m_layout = layout;
        m_block.resize(layout.blockLen);
        m_db.Open(dir, layout);
    }
    void Close() override {
        Flush();
        m_iterator.reset();
        m_db.Close();
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        std::memcpy(m_block.data() + at, bytes, length);
        if (at + length < m_layout.blockLen)
            return;
        m_batch.Put(Key(place).Slice(), typename Db::Slice(m_block.data(), m_block.size()));
        if (++m_uncommitted >= m_layout.batch)
            Commit();
    }
    void Flush() override {
        if (m_uncommitted > 0)
            Commit();
        m_db.Flush();
    }

    const char* Read(Place place, uint32_t at, uint32_t) override {
        if (!m_iterator)
            m_iterator.reset(m_db.NewIterator());
        m_iterator->Seek(Key(place).Slice());
        Require(m_iterator->Valid(), "no such key");
        return m_iterator->value().data() + at;
    }
    void Release() override {
        Close();
        Open(m_dir, m_layout);
    }

private:
    // Big-endian, so that the byte order of keys equals their numeric order.
    class Key {
    public:
        explicit Key(Place place) {
            Put(0, place.file);
            Put(4, place.block);
        }
        typename Db::Slice Slice() const { return {m_bytes.data(), m_bytes.size()}; }

    private:
        void Put(size_t from, uint32_t value) {
            for (size_t i = 0; i < 4; ++i)
                m_bytes[from + i] = static_cast<char>(value >> (24 - 8 * i));
        }
        std::array<char, 8> m_bytes;
    };

    void Commit() {
        m_iterator.reset(); // a snapshot of the state before this commit
        m_db.Write(m_batch);
        m_batch.Clear();
        m_uncommitted = 0;
    }

    std::filesystem::path m_dir;
    Layout m_layout;
    Db m_db;
    typename Db::Batch m_batch;
    uint32_t m_uncommitted = 0;
    std::unique_ptr<typename Db::Iterator> m_iterator;
    std::vector<char> m_block;
};

} // namespace bench
