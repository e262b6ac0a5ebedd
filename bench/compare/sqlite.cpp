// SQLite in its fastest configuration, one row per block: no synchronisation and no journal (no participant
// survives a power loss), exclusive locking, large pages for large blocks, reads through a memory map of the
// file into one buffer.
#include <sqlite3.h>

#include <cstring>
#include <string>

#include "../common.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

class Sqlite final : public Store {
public:
    void Open(const std::filesystem::path& dir, const Layout& layout) override {
        m_dir = dir;
        m_layout = layout;
        m_block.resize(layout.blockLen);
        m_read.resize(layout.blockLen);
        Check(sqlite3_open((dir / "store.sqlite").c_str(), &m_db));
        const int pageSize = layout.blockLen > 4096 ? 65536 : 4096;
        Execute("PRAGMA page_size=" + std::to_string(pageSize));
        Execute("PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF");
        Execute("PRAGMA mmap_size=2147418112; PRAGMA cache_size=" +
                std::to_string(-static_cast<int64_t>(layout.memory / 1024)));
        Execute("CREATE TABLE IF NOT EXISTS blocks(id INTEGER PRIMARY KEY, bytes BLOB)");
        Prepare("INSERT INTO blocks VALUES(?, ?)", m_insert);
        Prepare("BEGIN", m_begin);
        Prepare("COMMIT", m_commit);
    }
    void Close() override {
        Flush();
        CloseBlob();
        for (sqlite3_stmt* each : {m_insert, m_begin, m_commit})
            Check(sqlite3_finalize(each));
        Check(sqlite3_close(m_db));
    }

    void Write(Place place, uint32_t at, const char* bytes, uint32_t length) override {
        std::memcpy(m_block.data() + at, bytes, length);
        if (at + length < m_layout.blockLen)
            return;
        CloseBlob();
        if (m_layout.batch > 1 && m_uncommitted++ == 0)
            Run(m_begin);
        Check(sqlite3_bind_int64(m_insert, 1, static_cast<sqlite3_int64>(KeyOf(place))));
        Check(sqlite3_bind_blob(m_insert, 2, m_block.data(), static_cast<int>(m_layout.blockLen),
                                SQLITE_STATIC));
        Run(m_insert);
        if (m_uncommitted >= m_layout.batch)
            Flush();
    }
    void Flush() override {
        if (m_uncommitted > 0)
            Run(m_commit);
        m_uncommitted = 0;
    }

    const char* Read(Place place, uint32_t at, uint32_t length) override {
        const auto key = static_cast<sqlite3_int64>(KeyOf(place));
        if (m_blob)
            Check(sqlite3_blob_reopen(m_blob, key));
        else
            Check(sqlite3_blob_open(m_db, "main", "blocks", "bytes", key, 0, &m_blob));
        Check(sqlite3_blob_read(m_blob, m_read.data(), static_cast<int>(length),
                                static_cast<int>(at)));
        return m_read.data();
    }
    void Release() override {
        Close();
        Open(m_dir, m_layout);
    }

private:
    void Check(int result) { Require(result == SQLITE_OK, sqlite3_errmsg(m_db)); }
    void Execute(const std::string& text) {
        Check(sqlite3_exec(m_db, text.c_str(), nullptr, nullptr, nullptr));
    }
    void Prepare(const char* text, sqlite3_stmt*& statement) {
        Check(sqlite3_prepare_v2(m_db, text, -1, &statement, nullptr));
    }
    void Run(sqlite3_stmt* statement) {
        Require(sqlite3_step(statement) == SQLITE_DONE, sqlite3_errmsg(m_db));
        Check(sqlite3_reset(statement));
    }
    void CloseBlob() {
        if (m_blob)
            Check(sqlite3_blob_close(m_blob));
        m_blob = nullptr;
    }

    std::filesystem::path m_dir;
    Layout m_layout;
    sqlite3* m_db = nullptr;
    sqlite3_stmt* m_insert = nullptr;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_commit = nullptr;
    sqlite3_blob* m_blob = nullptr;
    uint32_t m_uncommitted = 0;
    std::vector<char> m_block;
    std::vector<char> m_read;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<Sqlite>(); }

} // namespace bench
