/* Model of the two threads and of one path, for the model checker spin. threads.sh runs it.
 *
 * FILES file objects use the path one after the other, each with BLOCKS blocks. The caller thread does OPS operations
 * in any order, between events and inside sinks, and stops at any time; FAULTS disk operations fail. A section that
 * the code runs under a lock is one atomic step. A disk operation takes two, under the mutex of its disk entry. Bytes
 * are numbers: each write has its own. The assertions have the numbers of the invariants in docs/architecture.md.
 * Left out: the order of pieces, rewrites of another length, epochs, temporary files, FMFlush, delays on Windows.
 *
 * Without any one of these rules, whose number `without` is, an assertion has to fail: */
#define STORE_SERIAL 41       /* EndStore compares the serial */
#define LOAD_SERIAL 42        /* OnDataReady compares the serial */
#define REWRITE_WITHDRAWS 43  /* a rewrite withdraws the pending store */
#define TAKEN_STORE_IS_OVER 44 /* the event of a store that is not pending any more is a no-op */
#define DETACH_IS_POSTED 51   /* CreateFile posts the end of the predecessor */
#define BARRIER_BOTH_LANES 52 /* the barrier has an event in the normal lane, too */
#define STORES_ONE_LANE 53    /* the stores of a successor are in the same lane as those of its predecessor */
#define TABLE_BEHIND 54       /* over a predecessor, the request to write a table passes through the queue */
#define CLAIM 55              /* OpenFile claims the path */
#define OPEN_DETACHES 56      /* OpenFile detaches the predecessor */
#define STOP_DRAINS 81        /* a queue that stops runs what is queued */
#define REFUSED_IS_DISPOSED 82 /* a queue disposes of an event that it refuses */
#define SKIPPED_CALLS 83      /* the completion of a withdrawn load calls the sinks */
#define STALE_LOADS_AGAIN 84  /* the completion of a stale load starts the next one */
#define CANCEL_IN_ROUND 85    /* a cancel reaches sinks that a running completion has still to call */
#define ONE_LOAD 86           /* a request joins the load in flight */
#define WRITES 2
c_decl { extern int without; }
#define RULE(r) (c_expr { without != r })
#define WHEN(condition, ...) if :: condition -> __VA_ARGS__ :: else fi

#define N (FILES * BLOCKS)
#define FILE(b) ((b) / BLOCKS)
#define FIRST(f) ((f) * BLOCKS)
#define LAST(f) (FIRST(f) + BLOCKS - 1)
#define EACH(k, f) for (k : FIRST(f) .. LAST(f))
#define SLOT(b) ((b) % BLOCKS)
#define OF(f) (N + (f)) /* targets of events: blocks, files, none */
#define NONE (N + FILES)
#define B blk[b]
#define F file[f]
#define O file[FILE(b)]
#define TORN 255
#define IS_FULL(b) (blk[b].state != Empty && blk[b].state != Filling)
#define IS_ON_DISK(b) (blk[b].state == Stored || blk[b].state == Restored)
#define IS_USED(b) (refs[b] || blk[b].held)
#define IS_ALIVE(f) (refs[OF(f)] || !file[f].closed || file[f].unsaved || IS_USED(FIRST(f)) || IS_USED(LAST(f)))
#define IS_OVER(b) (!blk[b].waiting && !blk[b].round && !blk[b].owed && blk[b].load == NoLoad && !blk[b].pending)
#define IS_CALLING (blk[0].round || blk[N / 2].round || blk[N - 1].round)

mtype { Empty, Filling, Queued, Writing, Stored, Failed, Restored, /* CFMBlock::State */
        NoLoad, Posted, Withdrawn, Begun, Skipped,                 /* CFMBlock::Load::State */
        Predecessor, Own, Detached,                                /* CFMDiskEntry::Path */
        Store, Load, SyncLoad, Table, End, Barrier, House, Save, Done } /* events */
mtype { High, Normal, Low }
typedef Block {
    mtype state = Empty; byte serial = 1; byte pending;   /* pending: serial of the pending store */
    mtype load = NoLoad; byte loadSerial;
    byte data; byte written;                     /* bytes in memory, of the last complete write; 0: none */
    byte waiting; byte round; byte owed;         /* sets of sinks: m_readsinks, CallRound, still to be called */
    bool held; byte entry; byte awaited }        /* the application has a reference; in the pending table */
typedef File {
    mtype path = Predecessor; bool closed = true; bool isRegistered; bool locked; byte serials = 1; byte running;
    bool hasTable; bool unsaved; bool changed; bool failed }
Block blk[N]; File file[FILES];
byte disk[BLOCKS], named[BLOCKS]; bool hasInfo;  /* the data file; the bytes that the table on disk names */
byte refs[N + FILES + 1], files, writes, acks, lastUser, faults = FAULTS;
bool busy, claimed, stopped, ended, hasCaller = true;
chan high = [6] of { mtype, byte, byte }; chan normal = [6] of { mtype, byte, byte };
chan low = [6] of { mtype, byte, byte }; chan calls = [6] of { mtype, byte, byte };

/* --- Events: CRtEventQueue::Enqueue, CFileManager::PostToReadwrThread, PostToCallerThread ----------------------- */
inline dispose(target) { assert(refs[target] > 0); refs[target]-- } /* invariant 8 */
inline post(lane, what, target, arg) {
    atomic { refs[target]++;
        if :: !stopped -> lane!what, target, arg :: else -> WHEN(RULE(REFUSED_IS_DISPOSED), dispose(target)) fi }
}
inline postCall(what, target, arg) { atomic { refs[target]++; calls!what, target, arg } }

/* --- Disk: CFMDiskEntry ----------------------------------------------------------------------------------------- */
inline beginDisk(f, isNeeded) {
    !F.locked -> F.locked = true; uses = isNeeded && F.path != Detached;
    WHEN(uses, assert(!busy && f >= lastUser); busy = true; lastUser = f) /* invariant 5 */
}
inline endDisk(f) { busy = busy && !uses; uses = false; F.locked = false }
inline discard(f) { /* DiscardPredecessorLocked */
    WHEN(F.path == Predecessor, F.path = Own; hasInfo = false; for (k : 0 .. BLOCKS - 1) { disk[k] = 0; named[k] = 0 })
}
inline storeRange(from, to) { /* Store, Revoke */
    atomic { beginDisk(FILE(from), true); ok = false;
        WHEN(uses, discard(FILE(from)); for (k : from .. to) { named[SLOT(k)] = 0; disk[SLOT(k)] = TORN }) }
    atomic {
        if
        :: uses -> ok = true; for (k : from .. to) { disk[SLOT(k)] = bytes[SLOT(k)] }
        :: uses && faults > 0 -> faults--
        :: else
        fi; endDisk(FILE(from)) }
}
inline loadRange(b) { /* Load: v is what it reads, or 0 */
    atomic { beginDisk(FILE(b), true); v = 0 }
    atomic { if :: uses -> v = disk[SLOT(b)] :: uses && faults > 0 -> faults-- :: else fi; endDisk(FILE(b)) }
}
inline writeTable(f) { /* WriteTable: ok, unless the table stays pending */
    atomic { beginDisk(f, F.hasTable); ok = true; F.hasTable = false }
    atomic {
        if
        :: uses -> discard(f); hasInfo = true;
            EACH(k, f) { assert(!blk[k].entry || blk[k].entry == disk[SLOT(k)]); /* invariants 1 and 2 */
                named[SLOT(k)] = blk[k].entry }
        :: uses && faults > 0 -> faults--; ok = false; F.hasTable = true
        :: else
        fi; endDisk(f) }
}

/* --- Read/write thread ------------------------------------------------------------------------------------------ */
inline take(b) { /* CFMStores::Take */
    assert(B.state == Queued); /* invariant 4 */
    B.pending = 0; B.state = Writing; bytes[SLOT(b)] = B.written; O.running++
}
inline endStore(b, id) { /* CFMBlock::EndStore, CFMStores::End */
    atomic { O.running--;
        WHEN(ok && O.hasTable && B.awaited == id, B.entry = bytes[SLOT(b)]; B.awaited = 0);
        WHEN(B.serial == id || !RULE(STORE_SERIAL),
            assert(B.state == Writing && !B.pending && B.written == bytes[SLOT(b)]); /* invariant 4 */
            B.state = (ok -> Stored : Failed);
            O.failed = O.failed || !ok; O.changed = O.changed || !ok) }
}
inline runStore(b, id) { /* CFMStoreEvent::OnEventFire, CFMStores::TakeBatch */
    atomic { last = NONE;
        WHEN(B.pending == id || !RULE(TAKEN_STORE_IS_OVER), take(b); last = b;
            WHEN(blk[LAST(FILE(b))].pending > id, last = LAST(FILE(b)); second = blk[last].pending; take(last))) }
    WHEN(last != NONE, /* WriteTogether; if that fails, WriteToFile of each one */
        storeRange(b, last);
        WHEN(last != b && !ok, storeRange(b, b); endStore(b, id); storeRange(last, last); id = 0);
        WHEN(id, endStore(b, id));
        WHEN(last != b, endStore(last, second)));
    last = 0; second = 0; bytes[0] = 0; bytes[BLOCKS - 1] = 0
}
inline runLoad(b) { /* CFMBlock::ReadFromFile, BeginLoad */
    atomic { ok = B.load == Posted && (B.held || !O.closed || refs[b] > 1); /* not IsLastReference */
        B.load = (ok -> Begun : Skipped); B.loadSerial = (ok && IS_ON_DISK(b) -> B.serial : 0); v = 0 }
    WHEN(B.loadSerial, loadRange(b));
    postCall(Done, b, v)
}
inline examine() { /* CFileManager::ExamineFile */
    atomic { ok = !claimed; for (k : 0 .. FILES - 1) { ok = ok && !IS_ALIVE(k) };
        WHEN(ok, claimed = true; assert(!busy); busy = true) } /* invariant 5 */
    WHEN(ok, atomic { busy = false; claimed = false });
    post(low, House, NONE, 0) /* ExamineNext_m */
}
active proctype ReadWriteThread() {
    mtype kind; byte t, x, v, k, last, second, bytes[BLOCKS]; bool ok, uses;
    do /* RunOne. Any lane may be next: 8 loads may have run before, or a second may have passed */
    :: atomic { if :: high?kind, t, x :: normal?kind, t, x :: low?kind, t, x fi };
        if
        :: kind == Store -> runStore(t, x)
        :: kind == Load -> runLoad(t)
        :: kind == SyncLoad -> loadRange(t); atomic { assert(!v || v == blk[t].written); blk[t].data = v; acks++ }
        :: kind == Table -> /* PostTable_m */
            atomic { beginDisk(t - N, file[t - N].path == Predecessor) } atomic { discard(t - N); endDisk(t - N) }
            postCall(Save, t, 0)
        :: kind == End -> /* Detach_m */
            writeTable(t - N);
            atomic { !file[t - N].locked -> file[t - N].hasTable = false; file[t - N].path = Detached }
        :: kind == Barrier -> acks++
        :: kind == House -> WHEN(x, examine())
        fi;
        atomic { dispose(t); t = 0; x = 0; v = 0; k = 0; kind = 0; ok = false }
    :: atomic { stopped && (empty(high) && empty(normal) && empty(low) || !RULE(STOP_DRAINS)) -> ended = true; break }
    od
}

/* --- Caller thread ---------------------------------------------------------------------------------------------- */
inline newSerial(b) { O.serials++; B.serial = O.serials }
inline postStore(b) { /* CFMBlock::PostStore */
    atomic { O.changed = true; newSerial(b); B.pending = B.serial; B.state = Queued }
    if :: RULE(STORES_ONE_LANE) || FILE(b) == 0 -> post(normal, Store, b, B.serial)
    :: else -> post(high, Store, b, B.serial) fi
}
inline write(b) { /* CFMBlock::BeginRewrite, then perhaps the last piece: WriteData */
    atomic { O.changed = true; WHEN(B.state != Empty && B.state != Filling, newSerial(b));
        WHEN(RULE(REWRITE_WITHDRAWS), B.pending = 0);
        B.state = Filling; B.data = TORN; B.written = 0 }
    if :: true -> writes++; B.written = writes; B.data = writes; postStore(b) :: true fi
}
inline postLoad(b) { /* CFMBlock::PostLoad: ok, unless it is refused */
    ok = hasCaller; WHEN(ok, assert(B.load == NoLoad); B.load = Posted; B.loadSerial = 0; post(high, Load, b, 0))
}
inline request(b, who) { /* CFMBlock::ReadData, JoinLoad */
    atomic { B.waiting = B.waiting | who; B.owed = B.owed | who;
        if :: B.load == Withdrawn -> B.load = Posted :: B.load == Skipped -> B.load = Begun :: else fi;
        WHEN(B.load == NoLoad || !RULE(ONE_LOAD), postLoad(b);
            WHEN(!ok, assert(B.waiting == who); B.waiting = 0; B.owed = B.owed - who)) }
}
inline cancel(b, who) { /* CFMBlock::CancelReadData, WithdrawLoad */
    atomic { B.owed = B.owed & ~who; B.waiting = B.waiting & ~who;
        WHEN(RULE(CANCEL_IN_ROUND), B.round = B.round & ~who);
        WHEN(!B.waiting && B.load == Posted, B.load = Withdrawn) }
}
inline callSinks(b) { B.round = B.round | B.waiting; B.waiting = 0 } /* CFMBlock::CallSinks */
inline dataReady(b, got) { /* CFMBlock::OnDataReady */
    atomic {
        assert(B.load == Skipped || B.load == Begun);
        assert(B.load != Skipped || !B.waiting || O.closed); /* no load was withdrawn that a sink waits for */
        isStale = B.load != Skipped && B.loadSerial != B.serial && RULE(LOAD_SERIAL);
        WHEN(!isStale && got && !B.data, assert(got == B.written); B.data = got); /* invariant 4 */
        if
        :: B.load == Skipped && !RULE(SKIPPED_CALLS) -> B.load = NoLoad
        :: else -> B.load = NoLoad;
            if
            :: !isStale || B.data || !IS_FULL(b) -> callSinks(b)
            :: else -> WHEN(B.waiting && RULE(STALE_LOADS_AGAIN), postLoad(b); WHEN(!ok, callSinks(b)))
            fi
        fi;
        B.loadSerial = (B.load == NoLoad -> 0 : B.loadSerial); isStale = false }
}
inline saveTable(f) { writeTable(f); F.unsaved = !ok } /* CFMFile::SaveFileInfo_m, KeepUnsaved */
inline retryStores(f) { /* CFMFile::RetryFailedStores */
    WHEN(F.failed && F.path != Detached,
        F.failed = false; EACH(i, f) { WHEN(blk[i].state == Failed, postStore(i)) })
}
inline closeFile(f) { /* CFMFile::Close, SaveFileInfo, DescribeBlocks, PostTable */
    WHEN(F.path != Detached, retryStores(f);
        atomic { ok = F.running || F.changed; EACH(k, f) { ok = ok || blk[k].pending } }
        WHEN(ok,
            atomic { F.changed = false; F.hasTable = true; ok = !F.running;
                EACH(k, f) { ok = ok && !blk[k].pending;
                    blk[k].entry = (blk[k].state == Stored || blk[k].state == Restored -> blk[k].written : 0);
                    blk[k].awaited = (blk[k].state == Queued || blk[k].state == Writing -> blk[k].serial : 0) } }
            if :: ok && (F.path != Predecessor || !RULE(TABLE_BEHIND)) -> postCall(Save, OF(f), 0)
            :: else -> post(normal, Table, OF(f), 0) fi));
    atomic { F.closed = true; EACH(k, f) { WHEN(blk[k].load == Posted, blk[k].load = Withdrawn) } }
}
inline registerFile(f, initial) { /* CFileManager::RegisterFile */
    atomic { for (k : 0 .. FILES - 1) { file[k].isRegistered = (k == f) }
        EACH(k, f) { blk[k].held = true }
        F.closed = false; F.path = initial; files++ }
}
inline createFile() { /* CFileManager::CreateFile, DetachPredecessors */
    for (i : 0 .. FILES - 1) { WHEN(i < files && IS_ALIVE(i) && RULE(DETACH_IS_POSTED), post(normal, End, OF(i), 0)) }
    i = files; registerFile(i, Predecessor)
}
inline barrier() { /* CFileManager::PostBarrier, and the wait for it */
    post(high, Barrier, NONE, 0);
    if :: RULE(BARRIER_BOTH_LANES) -> post(normal, Barrier, NONE, 0) :: else -> post(high, Barrier, NONE, 0) fi;
    atomic { acks == 2 -> acks = 0 }
}
inline openFile() { /* CFileManager::LoadFile, SettlePredecessors */
    i = files - 1; WHEN(IS_ALIVE(i), barrier(); saveTable(i));
    WHEN(!file[i].hasTable,
        i = files; /* invariant 5: */
        atomic { !claimed || !RULE(CLAIM) -> claimed = true; assert(!busy); busy = hasInfo; lastUser = i }
        WHEN(hasInfo,
            atomic { EACH(k, i) { blk[k].written = named[SLOT(k)]; blk[k].state = (named[SLOT(k)] -> Restored : Empty);
                assert(!named[SLOT(k)] || named[SLOT(k)] == disk[SLOT(k)]) } /* invariant 1 */
                busy = false }
            for (j : 0 .. FILES - 1) {
                WHEN(j < i && RULE(OPEN_DETACHES), atomic { !file[j].locked -> file[j].path = Detached }) }
            registerFile(i, Own));
        claimed = false)
}
inline stop() { /* CFileManager::UnInitialize */
    barrier(); for (j : 0 .. FILES - 1) { WHEN(!file[j].closed, closeFile(j)) }
    barrier(); stopped = true; ended;
    for (j : 0 .. 2 * FILES - 1) { i = j % FILES; WHEN(file[i].unsaved || j < FILES && IS_ALIVE(i), saveTable(i)) }
    atomic { hasCaller = false; ops = (ops > 1 -> 1 : ops); for (j : 0 .. FILES - 1) { file[j].isRegistered = false } }
}
inline operate() { /* one operation of the application or of the tick on block b, or on its file */
    f = FILE(b);
    if
    :: B.held && !F.closed && writes < WRITES -> write(b)
    :: B.held && !B.data && !(B.owed & sink) && (sink == 1 || B.owed) -> request(b, sink)
    :: B.held && B.owed & sink -> cancel(b, sink)
    :: B.held && !B.data && IS_FULL(b) && !stopped -> /* LoadAndWait */
        post(high, SyncLoad, b, 0); atomic { acks -> acks = 0 }
    :: B.state == Stored && B.data && F.path != Detached -> B.data = 0 /* FreeMemory */
    :: B.held && F.closed -> B.held = false
    :: F.isRegistered && b == FIRST(f) -> closeFile(f); F.isRegistered = false /* DetachFile */
    :: F.isRegistered && F.failed -> retryStores(f)
    :: F.unsaved -> saveTable(f) /* SaveUnsaved */
    :: files < FILES && !stopped -> createFile()
    :: files < FILES && !stopped && !file[files - 1].isRegistered -> openFile()
    :: HOUSE && !stopped -> post(low, House, NONE, 1)
    :: else
    fi
}
active proctype CallerThread() {
    mtype kind; byte t, x, k, i, j, b, f; byte sink = 1, ops = OPS; bool ok, uses, isStale;
    createFile();
    do
    :: atomic { ops > 0 -> ops--; select(b : 0 .. N - 1); select(sink : 1 .. 2) }
        operate(); atomic { b = 0; f = 0; sink = 1; i = 0; j = 0; k = 0; ok = false }
    :: atomic { IS_CALLING -> select(b : 0 .. N - 1); select(sink : 1 .. 2);
        WHEN(B.round & sink, assert(B.owed & sink); B.owed = B.owed - sink; B.round = B.round - sink); /* invariant 8 */
        b = 0; sink = 1 }
    :: calls?kind, t, x -> if :: kind == Done -> dataReady(t, x) :: kind == Save -> saveTable(t - N) fi;
        atomic { dispose(t); kind = 0; t = 0; x = 0; k = 0; ok = false }
    :: !stopped -> stop()
    :: atomic { stopped && empty(calls) && !IS_CALLING && !ops -> break }
    od;
    for (k : 0 .. N + FILES) { assert(!refs[k]) } /* invariant 8: every event */
    for (k : 0 .. N - 1) { assert(IS_OVER(k)) }   /* invariant 8: every sink */
    EACH(k, files - 1) { /* unless the disk failed, the table on disk names the last complete write */
        assert(faults < FAULTS || !blk[k].written || blk[k].written == named[SLOT(k)]) }
}
