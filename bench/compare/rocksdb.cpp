// RocksDB in its fastest configuration: no write-ahead log (no participant survives a power loss, and the log
// would write every byte twice), no compression, no checksum verification on reads, memory-mapped tables. Blob
// files for large values were measured too: they were slower for writing and for reading.
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/table.h>
#include <rocksdb/write_batch.h>

#include "../common.h"
#include "lsm.h"
#include "store.h"

namespace bench {

const bool keepsFreedPages = true;

namespace {

struct RocksDb {
    using Slice = rocksdb::Slice;
    using Batch = rocksdb::WriteBatch;
    using Iterator = rocksdb::Iterator;

    void Open(const std::filesystem::path& dir, const Layout& layout) {
        rocksdb::BlockBasedTableOptions table;
        table.block_cache = rocksdb::NewLRUCache(layout.memory);
        rocksdb::Options options;
        options.create_if_missing = true;
        options.compression = rocksdb::kNoCompression;
        options.write_buffer_size = 64 << 20;
        options.allow_mmap_reads = true;
        reading.verify_checksums = false; // no other participant verifies checksums
        options.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
        rocksdb::DB* opened = nullptr;
        Check(rocksdb::DB::Open(options, dir.string(), &opened));
        db.reset(opened);
    }
    void Close() { db.reset(); }
    void Write(Batch& batch) {
        rocksdb::WriteOptions options;
        options.disableWAL = true;
        Check(db->Write(options, &batch));
    }
    void Flush() { Check(db->Flush({})); }
    Iterator* NewIterator() { return db->NewIterator(reading); }
    static void Check(const rocksdb::Status& status) {
        Require(status.ok(), status.ToString().c_str());
    }

    std::unique_ptr<rocksdb::DB> db;
    rocksdb::ReadOptions reading;
};

} // namespace

std::unique_ptr<Store> MakeStore() { return std::make_unique<LsmStore<RocksDb>>(); }

} // namespace bench
