/* Model of both threads and of one path, for the model checker spin. threads.sh runs it.
 *
 * FILES file objects use the path one after the other, each with BLOCKS blocks. The caller thread does OPS operations
 * in any order, between events and inside sinks, and may stop at any time. A section under a lock of the code is one
 * atomic step; a disk operation takes several, under the mutex of its entry. Bytes are numbers: each write has its own.
 * Each assertion names its invariant of docs/architecture.md. Without one of the RULES, an assertion has to fail.
 *
 * Left out: pieces of a block, rewrites of another length, epochs, temporary files, FMFlush, a delay on Windows. */
#define NOTHING 0
/* RULES */
#define STORE_SERIAL 41       /* EndStore compares the serial */
#define LOAD_SERIAL 42        /* OnDataReady compares the serial */
#define REWRITE_WITHDRAWS 43  /* a rewrite withdraws the pending store */
#define DETACH_IS_POSTED 51   /* CreateFile posts the end of the predecessor */
#define BARRIER_BOTH_LANES 52 /* the barrier has an event in the normal lane, too */
#define STORES_ONE_LANE 53    /* all stores are in the normal lane */
#define TABLE_BEHIND 54       /* over a predecessor, the request to write a table passes through the queue */
#define CLAIM 55              /* OpenFile and housekeeping claim the path */
#define OPEN_DETACHES 56      /* OpenFile detaches the predecessor */
#define STOP_DRAINS 81        /* a queue that stops runs what is queued */
#define REFUSED_IS_DISPOSED 82
#define SKIPPED_CALLS 83      /* the completion of a withdrawn load calls the sinks */
#define STALE_LOADS_AGAIN 84  /* the completion of a stale load starts the next one */
#define CANCEL_IN_ROUND 85    /* a cancel reaches sinks that a running completion has still to call */
#define ONE_LOAD 86           /* a request joins the load in flight */
#define BATCH_IS_TAKEN 87     /* the event of a store that a batch has written is a no-op */
#ifndef WITHOUT
#define WITHOUT NOTHING
#endif
#define RULE(r) (WITHOUT != r)

#define N (FILES * BLOCKS)
#define FILE(b) ((b) / BLOCKS)
#define FIRST(f) ((f) * BLOCKS)
#define LAST(f) (FIRST(f) + BLOCKS - 1)
#define SLOT(b) ((b) % BLOCKS)
#define OF(f) (N + (f))  /* targets of events: blocks, files, nothing */
#define NONE (N + FILES)
#define TORN 255
#define SINKS 2
#define IS_COMPLETE(b) (blk[b].state != Empty && blk[b].state != Filling)
#define IS_ON_DISK(b) (blk[b].state == Stored || blk[b].state == Restored)
#define IS_USED(b) (refs[b] || blk[b].held)
#define IS_ALIVE(f) (refs[OF(f)] || !file[f].closed || file[f].unsaved || IS_USED(FIRST(f)) || IS_USED(LAST(f)))
#define HIGH 0
#define NORMAL 1
#define LOW 2

mtype { Empty, Filling, Queued, Writing, Stored, Failed, Restored,  /* CFMBlock::State */
        NoLoad, Posted, Withdrawn, Begun, Skipped,                  /* CFMBlock::Load::State */
        Predecessor, Own, Detached,                                 /* CFMDiskEntry::Path */
        Store, Load, SyncLoad, Table, End, Barrier, House, Save, Done } /* events */
typedef Block {
    mtype state = Empty; byte serial = 1; byte pending; /* serial of the pending store */
    mtype load = NoLoad; byte loadSerial;
    byte data;           /* bytes in memory; 0: not resident */
    byte written;        /* the complete write that a reader has to see; 0: none */
    byte waiting; byte round; byte owed; /* sets of sinks: m_readsinks, CallRound, not called and not cancelled */
    bool held;           /* the application has a reference */
    byte entry; byte awaited /* in the pending table */
}
typedef File {
    mtype path = Predecessor; bool closed = true; bool isRegistered; bool locked; bool hasTable; bool unsaved;
    bool changed; bool failed; byte serials = 1; byte running
}
Block blk[N]; File file[FILES];
byte disk[BLOCKS], named[BLOCKS]; bool hasInfo; /* the data file; the bytes that the table on disk names */
byte refs[N + FILES + 1]; byte files, writes, acks, lastUser; byte faults = FAULTS;
bool busy, claimed, stopped, ended, hasThread = true, hasCaller = true;
chan lane[3] = [6] of { mtype, byte, byte };
chan calls = [6] of { mtype, byte, byte };

/* --- Events: CRtEventQueue -------------------------------------------------------------------------------------- */
inline dispose(target) { assert(refs[target] > 0); refs[target]-- } /* invariant 8: OnDestorySelf, once */
inline post(l, what, target, arg) { /* Enqueue; CFileManager::PostToReadwrThread */
    atomic {
        refs[target]++;
        if
        :: !stopped -> lane[l]!what, target, arg
        :: else -> if :: RULE(REFUSED_IS_DISPOSED) -> dispose(target) :: else fi
        fi
    }
}
inline postCall(what, target, arg) { atomic { refs[target]++; calls!what, target, arg } } /* PostToCallerThread */

/* --- Disk: CFMDiskEntry ----------------------------------------------------------------------------------------- */
inline beginDisk(f) { atomic { assert(!busy && f >= lastUser); busy = true; lastUser = f } } /* invariant 5 */
inline lock(f) { atomic { !file[f].locked -> file[f].locked = true } }
inline discard(f) { /* DiscardPredecessorLocked */
    if
    :: file[f].path == Predecessor ->
        file[f].path = Own; hasInfo = false;
        for (k : 0 .. BLOCKS - 1) { disk[k] = 0; named[k] = 0 }
    :: else
    fi
}
inline storeRange(from, to) { /* Store: revokes, then writes `bytes` */
    lock(FILE(from));
    if
    :: file[FILE(from)].path == Detached -> ok = false
    :: else ->
        beginDisk(FILE(from));
        d_step { discard(FILE(from)); for (k : from .. to) { named[SLOT(k)] = 0; disk[SLOT(k)] = TORN } }
        if
        :: ok = true; d_step { for (k : from .. to) { disk[SLOT(k)] = bytes[SLOT(k)] } }
        :: faults > 0 -> faults--; ok = false
        fi;
        busy = false
    fi;
    file[FILE(from)].locked = false
}
inline loadRange(b) { /* Load: v becomes the bytes, or 0 */
    lock(FILE(b)); v = 0;
    if
    :: file[FILE(b)].path == Detached
    :: else -> beginDisk(FILE(b)); if :: v = disk[SLOT(b)] :: faults > 0 -> faults-- fi; busy = false
    fi;
    file[FILE(b)].locked = false
}
inline writeTable(f) { /* WriteTable: ok, unless the table stays pending */
    lock(f);
    atomic { ok = true; had = file[f].hasTable; file[f].hasTable = false };
    if
    :: had && file[f].path != Detached ->
        beginDisk(f);
        if
        :: true -> d_step {
            discard(f); hasInfo = true;
            for (k : FIRST(f) .. LAST(f)) {
                assert(blk[k].entry == 0 || blk[k].entry == disk[SLOT(k)]); /* invariants 1 and 2 */
                named[SLOT(k)] = blk[k].entry
            } }
        :: faults > 0 -> faults--; ok = false; file[f].hasTable = true
        fi;
        busy = false
    :: else
    fi;
    file[f].locked = false; had = false
}

/* --- Read/write thread ------------------------------------------------------------------------------------------ */
inline take(b) { /* CFMStores::Take */
    assert(blk[b].state == Queued); /* invariant 4 */
    blk[b].pending = 0; blk[b].state = Writing; bytes[SLOT(b)] = blk[b].written; file[FILE(b)].running++
}
inline endStore(b, id) { /* CFMBlock::EndStore, CFMStores::End */
    atomic {
        assert(file[FILE(b)].running > 0); file[FILE(b)].running--;
        if
        :: ok && file[FILE(b)].hasTable && blk[b].awaited == id -> blk[b].entry = bytes[SLOT(b)]; blk[b].awaited = 0
        :: else
        fi;
        if
        :: RULE(STORE_SERIAL) && blk[b].serial != id
        :: else ->
            assert(blk[b].state == Writing && !blk[b].pending && blk[b].written == bytes[SLOT(b)]); /* invariant 4 */
            if
            :: ok -> assert(disk[SLOT(b)] == blk[b].written); blk[b].state = Stored
            :: else -> blk[b].state = Failed; file[FILE(b)].failed = true; file[FILE(b)].changed = true
            fi
        fi
    }
}
inline runStore(b, id) { /* CFMStoreEvent::OnEventFire, WriteTogether, WriteToFile */
    atomic {
        last = b; second = 0;
        if
        :: blk[b].pending != id && RULE(BATCH_IS_TAKEN) -> last = NONE /* withdrawn, or written by a batch */
        :: else ->
            take(b);
            if
            :: BLOCKS > 1 && SLOT(b) == 0 && blk[LAST(FILE(b))].pending > id ->
                last = LAST(FILE(b)); second = blk[last].pending; take(last)
            :: else
            fi
        fi
    };
    if
    :: last == NONE
    :: last != NONE ->
        storeRange(b, last);
        if
        :: second && !ok -> storeRange(b, b); endStore(b, id); storeRange(last, last); endStore(last, second)
        :: else -> endStore(b, id); if :: second -> endStore(last, second) :: else fi
        fi
    fi;
    atomic { last = 0; second = 0; ok = false; bytes[0] = 0; bytes[BLOCKS - 1] = 0 }
}
inline runLoad(b) { /* CFMBlock::ReadFromFile, BeginLoad */
    atomic {
        assert(blk[b].load == Posted || blk[b].load == Withdrawn);
        ok = blk[b].load == Posted && (blk[b].held || !file[FILE(b)].closed || refs[b] > 1); /* IsLastReference */
        blk[b].load = (ok -> Begun : Skipped);
        blk[b].loadSerial = (ok && IS_ON_DISK(b) -> blk[b].serial : 0);
        ok = blk[b].loadSerial != 0
    };
    if :: ok -> loadRange(b) :: else fi;
    postCall(Done, b, v); atomic { v = 0; ok = false }
}
inline examine() { /* CFileManager::ExamineFile */
    atomic {
        ok = !claimed;
        for (k : 0 .. FILES - 1) { ok = ok && !IS_ALIVE(k) }
        claimed = claimed || ok
    };
    if
    :: ok -> atomic { assert(!busy); busy = true }; busy = false; claimed = false /* invariant 5 */
    :: else
    fi;
    ok = false
}
active proctype ReadWriteThread() {
    mtype kind; byte t, x, v, k, last, second; byte bytes[BLOCKS]; bool ok, had;
    do /* RunOne. Any lane may be next: 8 loads may have run before, or a second may have passed */
    :: atomic { if :: lane[HIGH]?kind, t, x :: lane[NORMAL]?kind, t, x :: lane[LOW]?kind, t, x fi };
        if
        :: kind == Store -> runStore(t, x)
        :: kind == Load -> runLoad(t)
        :: kind == SyncLoad -> loadRange(t); atomic { blk[t].data = v; assert(!v || v == blk[t].written); v = 0; acks++ }
        :: kind == Table -> lock(t - N); if :: file[t - N].path == Predecessor -> beginDisk(t - N); d_step { discard(t - N); busy = false } :: else fi; file[t - N].locked = false; postCall(Save, t, 0) /* PostTable_m */
        :: kind == End -> writeTable(t - N); lock(t - N); atomic { file[t - N].hasTable = false; file[t - N].path = Detached; file[t - N].locked = false } /* Detach_m */
        :: kind == Barrier -> acks++
        :: kind == House -> if :: x -> examine(); post(LOW, House, NONE, 0) :: else fi /* ExamineNext_m */
        fi;
        atomic { dispose(t); t = 0; x = 0; kind = 0; k = 0; ok = false }
    :: atomic { stopped && (empty(lane[HIGH]) && empty(lane[NORMAL]) && empty(lane[LOW]) || !RULE(STOP_DRAINS)) -> break }
    od;
    ended = true
}

/* --- Caller thread ---------------------------------------------------------------------------------------------- */
inline postStore(b) { /* CFMBlock::PostStore */
    atomic {
        file[FILE(b)].changed = true; file[FILE(b)].serials++;
        blk[b].serial = file[FILE(b)].serials; blk[b].pending = blk[b].serial; blk[b].state = Queued
    };
    post((RULE(STORES_ONE_LANE) || FILE(b) == 0 -> NORMAL : HIGH), Store, b, blk[b].serial)
}
inline rewrite(b) { /* CFMBlock::BeginRewrite, PrepareBuffer */
    atomic {
        file[FILE(b)].changed = true;
        if :: blk[b].state != Empty -> file[FILE(b)].serials++; blk[b].serial = file[FILE(b)].serials :: else fi;
        if :: RULE(REWRITE_WITHDRAWS) -> blk[b].pending = 0 :: else fi;
        blk[b].state = Filling; blk[b].data = TORN; blk[b].written = 0
    }
}
inline finish(b) { /* CFMBlock::WriteData, the last piece */
    writes++; blk[b].written = writes; blk[b].data = writes; postStore(b)
}
inline postLoad(b) { /* CFMBlock::PostLoad; ok, unless it was refused */
    ok = hasCaller;
    if :: ok -> atomic { assert(blk[b].load == NoLoad); blk[b].load = Posted; blk[b].loadSerial = 0 }; post(HIGH, Load, b, 0) :: else fi
}
inline request(b, who) { /* CFMBlock::ReadData, JoinLoad */
    atomic {
        blk[b].waiting = blk[b].waiting | who; blk[b].owed = blk[b].owed | who;
        if
        :: blk[b].load == Withdrawn -> blk[b].load = Posted
        :: blk[b].load == Skipped -> blk[b].load = Begun
        :: else
        fi;
        ok = blk[b].load != NoLoad && RULE(ONE_LOAD)
    };
    if
    :: ok
    :: !ok -> postLoad(b); if :: !ok -> assert(blk[b].waiting == who); blk[b].waiting = 0; blk[b].owed = blk[b].owed - who :: ok fi
    fi
}
inline cancel(b, who) { /* CFMBlock::CancelReadData, WithdrawLoad */
    atomic {
        blk[b].owed = blk[b].owed & ~who; blk[b].waiting = blk[b].waiting & ~who;
        if :: RULE(CANCEL_IN_ROUND) -> blk[b].round = blk[b].round & ~who :: else fi;
        if :: !blk[b].waiting && blk[b].load == Posted -> blk[b].load = Withdrawn :: else fi
    }
}
inline callSinks(b) { blk[b].round = blk[b].round | blk[b].waiting; blk[b].waiting = 0 } /* CFMBlock::CallSinks */
inline callOne(b, who) { assert(blk[b].owed & who); blk[b].owed = blk[b].owed - who; blk[b].round = blk[b].round - who } /* invariant 8 */
inline dataReady(b, got) { /* CFMBlock::OnDataReady */
    atomic {
        assert(blk[b].load == Begun || blk[b].load == Skipped); /* at most one load in flight */
        skipped = blk[b].load == Skipped;
        ok = !skipped && blk[b].loadSerial != blk[b].serial && RULE(LOAD_SERIAL); /* stale */
        assert(!skipped || !blk[b].waiting || file[FILE(b)].closed); /* a wanted load was not withdrawn */
        blk[b].load = NoLoad; blk[b].loadSerial = 0;
        if
        :: !ok && got && !blk[b].data -> assert(got == blk[b].written); blk[b].data = got /* invariant 4 */
        :: else
        fi;
        if
        :: skipped && !RULE(SKIPPED_CALLS) -> ok = false
        :: else -> if :: blk[b].data && IS_COMPLETE(b) || !ok || !IS_COMPLETE(b) -> callSinks(b); ok = false :: else -> ok = blk[b].waiting != 0 && RULE(STALE_LOADS_AGAIN) fi
        fi;
        skipped = false
    };
    if :: ok -> postLoad(b); if :: ok :: !ok -> callSinks(b) fi :: !ok fi
}
inline saveTable(f) { writeTable(f); file[f].unsaved = !ok } /* CFMFile::SaveFileInfo_m, KeepUnsaved */
inline retryStores(f) { /* CFMFile::RetryFailedStores */
    if
    :: file[f].failed && file[f].path != Detached ->
        file[f].failed = false;
        for (i : FIRST(f) .. LAST(f)) { if :: blk[i].state == Failed -> postStore(i) :: else fi }
    :: else
    fi
}
inline close(f) { /* CFMFile::Close, SaveFileInfo, DescribeBlocks, PostTable */
    if
    :: file[f].path == Detached
    :: else ->
        retryStores(f);
        ok = file[f].running; for (k : FIRST(f) .. LAST(f)) { ok = ok || blk[k].pending }
        atomic { file[f].changed = file[f].changed || ok; ok = file[f].changed };
        if
        :: ok ->
            file[f].changed = false;
            atomic {
                file[f].hasTable = true; ok = file[f].running == 0;
                for (k : FIRST(f) .. LAST(f)) {
                    blk[k].entry = (IS_ON_DISK(k) -> blk[k].written : 0);
                    blk[k].awaited = (blk[k].state == Queued || blk[k].state == Writing -> blk[k].serial : 0);
                    ok = ok && !blk[k].pending
                }
            };
            if
            :: ok && (file[f].path != Predecessor || !RULE(TABLE_BEHIND)) -> postCall(Save, OF(f), 0)
            :: else -> post(NORMAL, Table, OF(f), 0)
            fi
        :: else
        fi
    fi;
    atomic {
        file[f].closed = true;
        for (k : FIRST(f) .. LAST(f)) { if :: blk[k].load == Posted -> blk[k].load = Withdrawn :: else fi }
    }
}
inline register(f, initial) { /* CFileManager::RegisterFile */
    atomic {
        for (k : 0 .. FILES - 1) { file[k].isRegistered = k == f };
        for (k : FIRST(f) .. LAST(f)) { blk[k].held = true };
        file[f].closed = false; file[f].path = initial; files++
    }
}
inline createFile() { /* CFileManager::CreateFile, DetachPredecessors */
    for (i : 0 .. FILES - 1) { if :: i < files && IS_ALIVE(i) && RULE(DETACH_IS_POSTED) -> post(NORMAL, End, OF(i), 0) :: else fi }
    register(files, Predecessor)
}
inline barrier() { /* CFileManager::PostBarrier, and the wait for it */
    post(HIGH, Barrier, NONE, 0); post((RULE(BARRIER_BOTH_LANES) -> NORMAL : HIGH), Barrier, NONE, 0);
    atomic { acks == 2 -> acks = 0 }
}
inline openFile() { /* CFileManager::LoadFile, SettlePredecessors */
    i = files - 1; skipped = false;
    if :: IS_ALIVE(i) -> barrier(); saveTable(i); skipped = file[i].hasTable :: else fi;
    if
    :: skipped
    :: !skipped ->
        if :: RULE(CLAIM) -> atomic { !claimed -> claimed = true } :: else fi;
        i = files; beginDisk(i);
        if
        :: hasInfo ->
            for (k : FIRST(i) .. LAST(i)) {
                assert(!named[SLOT(k)] || named[SLOT(k)] == disk[SLOT(k)]); /* invariant 1 */
                blk[k].written = named[SLOT(k)]; if :: named[SLOT(k)] -> blk[k].state = Restored :: else fi
            }
            busy = false;
            for (k : 0 .. FILES - 1) { if :: k < i && RULE(OPEN_DETACHES) -> atomic { !file[k].locked -> file[k].path = Detached } :: else fi }
            register(i, Own)
        :: else -> busy = false
        fi;
        claimed = false
    fi;
    skipped = false
}
inline stop() { /* CFileManager::UnInitialize */
    barrier();
    for (j : 0 .. FILES - 1) { if :: !file[j].closed -> close(j) :: else fi; file[j].isRegistered = false }
    barrier();
    stopped = true; ended -> hasThread = false;
    for (j : 0 .. 2 * FILES - 1) { i = j % FILES; if :: j < FILES && IS_ALIVE(i) || file[i].unsaved -> saveTable(i) :: else fi }
    hasCaller = false; j = 0
}
inline operate() { /* one operation of the application, or of the tick, on block b */
    if
    :: blk[b].held && !file[FILE(b)].closed && blk[b].state != Filling && writes < WRITES -> rewrite(b); if :: true -> finish(b) :: true fi
    :: blk[b].state == Filling && blk[b].held && !file[FILE(b)].closed -> finish(b)
    :: blk[b].held && !blk[b].data && !(blk[b].owed & sink) -> request(b, sink)
    :: blk[b].held && blk[b].owed & sink -> cancel(b, sink)
    :: blk[b].held && !blk[b].data && IS_COMPLETE(b) && hasThread -> post(HIGH, SyncLoad, b, 0); acks > 0 -> acks = 0 /* LoadAndWait */
    :: blk[b].state == Stored && blk[b].data && file[FILE(b)].path != Detached -> blk[b].data = 0 /* FreeMemory */
    :: blk[b].held && file[FILE(b)].closed -> blk[b].held = false
    :: b == FIRST(FILE(b)) && file[FILE(b)].isRegistered -> close(FILE(b)); file[FILE(b)].isRegistered = false /* DetachFile */
    :: b == FIRST(FILE(b)) && file[FILE(b)].isRegistered && file[FILE(b)].failed -> retryStores(FILE(b))
    :: b == FIRST(FILE(b)) && file[FILE(b)].unsaved -> saveTable(FILE(b)) /* SaveUnsaved */
    :: b == 0 && files < FILES && !stopped -> createFile()
    :: b == 0 && files < FILES && !stopped && !file[files - 1].isRegistered -> openFile()
    :: b == 0 && HOUSE && !stopped -> post(LOW, House, NONE, 1)
    :: else
    fi
}
#define IS_IDLE(b) (!blk[b].waiting && !blk[b].round && !blk[b].owed && blk[b].load == NoLoad && !blk[b].pending)
#define IS_CALLING (blk[0].round || blk[N / 2].round || blk[N - 1].round)
active proctype CallerThread() {
    mtype kind; byte t, x, k, i, j, b; byte sink = 1; byte ops = OPS; bool ok, had, skipped;
    createFile();
    do
    :: atomic { ops > 0 -> ops--; select(b : 0 .. N - 1); select(sink : 1 .. SINKS); }; operate(); atomic { b = 0; sink = 1; i = 0; k = 0; ok = false }
    :: atomic {
        IS_CALLING -> select(b : 0 .. N - 1); select(sink : 1 .. SINKS);
        if :: blk[b].round & sink -> callOne(b, sink) :: else fi;
        b = 0; sink = 1 }
    :: calls?kind, t, x -> if :: kind == Done -> dataReady(t, x) :: kind == Save -> saveTable(t - N) fi;
        atomic { dispose(t); kind = 0; t = 0; x = 0; k = 0; ok = false }
    :: !stopped -> stop()
    :: atomic { stopped && empty(calls) && ops == 0 && !IS_CALLING -> break }
    od;
    atomic {
        for (k : 0 .. N + FILES) { assert(refs[k] == 0) }; /* invariant 8: events */
        for (k : 0 .. N - 1) { assert(IS_IDLE(k)) }; /* invariant 8: sinks */
        for (k : FIRST(files - 1) .. LAST(files - 1)) {
            assert(faults < FAULTS || !blk[k].written || blk[k].written == named[SLOT(k)]) /* nothing is lost */
        }
    }
}
