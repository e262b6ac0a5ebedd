// LevelDB in its fastest configuration: no synchronous writes, no compression (the test bytes are noise), large
// tables. LevelDB maps uncompressed tables into memory by default.
#include <leveldb/cache.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>

#include "../common.h"
#include "lsm.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

struct LevelDb {
    using Slice = leveldb::Slice;
    using Batch = leveldb::WriteBatch;
    using Iterator = leveldb::Iterator;

    void Open(const std::filesystem::path& dir, const Layout& layout) {
        constexpr size_t tableSize = 64 << 20;
        cache.reset(leveldb::NewLRUCache(layout.memory));
        leveldb::Options options;
        options.create_if_missing = true;
        options.compression = leveldb::kNoCompression;
        options.write_buffer_size = tableSize;
        options.max_file_size = tableSize;
        options.block_cache = cache.get();
        leveldb::DB* opened = nullptr;
        Check(leveldb::DB::Open(options, dir.string(), &opened));
        db.reset(opened);
    }
    void Close() {
        db.reset();
        cache.reset();
    }
    void Write(Batch& batch) { Check(db->Write({}, &batch)); }
    // Each write has already been passed to the operating system: LevelDB writes its log first.
    void Flush() {}
    Iterator* NewIterator() { return db->NewIterator({}); }
    static void Check(const leveldb::Status& status) {
        Require(status.ok(), status.ToString().c_str());
    }

    std::unique_ptr<leveldb::Cache> cache; // outlives the database
    std::unique_ptr<leveldb::DB> db;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<LsmStore<LevelDb>>(); }

} // namespace bench
