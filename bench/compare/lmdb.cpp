// LMDB in its fastest configuration: MDB_RESERVE (values are written in place, which saves a copy), integer
// keys, no synchronisation. MDB_WRITEMAP is faster for single small values only, because the first write to
// each page of a mapped file is a page fault. A read returns a pointer into the map, valid until the
// transaction ends, so each read renews the transaction. LMDB has no cache of blocks: the map is the page cache.
#include <lmdb.h>

#include <cstring>

#include "../common.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

void Check(int result) { Require(result == MDB_SUCCESS, mdb_strerror(result)); }

class Lmdb final : public Store {
public:
    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        constexpr size_t mapSize = size_t{4} << 30;
        constexpr uint32_t small = 4096;
        m_dir = dir;
        m_layout = layout;
        Check(mdb_env_create(&m_env));
        Check(mdb_env_set_mapsize(m_env, mapSize));
        const bool single = layout.batch == 1 && layout.blockLen < small;
        Check(mdb_env_open(m_env, dir.c_str(),
                           MDB_NOSYNC | MDB_NOTLS | MDB_NORDAHEAD | MDB_NOMEMINIT |
                               (single ? MDB_WRITEMAP : 0U),
                           0600));
        BeginWriting();
        Check(mdb_dbi_open(m_writing, nullptr, MDB_INTEGERKEY | MDB_CREATE, &m_table));
        Flush();
        Check(mdb_txn_begin(m_env, nullptr, MDB_RDONLY, &m_reading));
        mdb_txn_reset(m_reading);
    }
    void Close() override {
        Flush();
        mdb_txn_abort(m_reading);
        mdb_env_close(m_env);
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        if (!m_writing)
            BeginWriting();
        if (at == 0) {
            uint64_t id = KeyOf(place);
            MDB_val key{sizeof(id), &id};
            MDB_val value{m_layout.blockLen, nullptr};
            Check(mdb_put(m_writing, m_table, &key, &value, MDB_RESERVE));
            m_target = static_cast<char*>(value.mv_data);
        }
        std::memcpy(m_target + at, bytes, length);
        if (at + length == m_layout.blockLen && ++m_uncommitted >= m_layout.batch)
            Flush();
    }
    void Flush() override {
        if (m_writing)
            Check(mdb_txn_commit(m_writing));
        m_writing = nullptr;
        m_uncommitted = 0;
    }

    const char* Read(Place place, uint32_t at, uint32_t) override {
        mdb_txn_reset(m_reading);
        Check(mdb_txn_renew(m_reading));
        uint64_t id = KeyOf(place);
        MDB_val key{sizeof(id), &id};
        MDB_val value{};
        Check(mdb_get(m_reading, m_table, &key, &value));
        return static_cast<const char*>(value.mv_data) + at;
    }
    void Release() override {
        Close();
        Open(m_dir, m_layout);
    }

private:
    void BeginWriting() { Check(mdb_txn_begin(m_env, nullptr, 0, &m_writing)); }

    std::filesystem::path m_dir;
    Layout m_layout;
    MDB_env* m_env = nullptr;
    MDB_dbi m_table = 0;
    MDB_txn* m_writing = nullptr;
    MDB_txn* m_reading = nullptr;
    uint32_t m_uncommitted = 0;
    char* m_target = nullptr;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<Lmdb>(); }

} // namespace bench
