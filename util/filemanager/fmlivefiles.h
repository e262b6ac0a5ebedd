// CFMLiveFiles: the file objects that exist, by the path that each one uses, and claims on paths.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include "FMFileID.h"
#include "RtReferenceControl.h"
#include "RtString.h"

class CFMFile;

/// A file object outlives its entry in the registry while it has queued jobs, a pending table or references.
/// The lock also guards the registry: the caller thread changes it, the read/write thread reads it. Under the
/// lock no object is released, no callback runs, and the only wait is for the end of a claim.
class CFMLiveFiles {
public:
    using FileRef = CRtComAutoPtr<CFMFile>;

    CFMLiveFiles();
    ~CFMLiveFiles();
    [[nodiscard]] std::unique_lock<std::mutex> Lock() { return std::unique_lock(m_mutex); }

    /// Precondition: the lock is held.
    void Add(const FMFileID& pathID, CFMFile* file) { m_files.emplace(pathID, file); }
    /// The object is being destroyed. It is not listed if there was no memory to add it. Any thread.
    void Forget(const FMFileID& pathID, const CFMFile* file, bool isUnsynced);
    /// All objects, or those of one path, except those that are being destroyed.
    /// `ending`: the paths of those.
    std::vector<FileRef> Get(const FMFileID* pathID, std::set<FMFileID>* ending = nullptr);
    /// Includes objects that are being destroyed.
    bool Contains(const FMFileID& pathID);

    /// While it is held, the path is either opened on the caller thread or examined by housekeeping.
    class CClaim {
    public:
        enum Wish { WAIT, IF_FREE };
        /// WAIT: waits for the end of another claim. IF_FREE: not held if the path is claimed or an object
        /// lives on it. FMFileID_None is a path of no object.
        CClaim(CFMLiveFiles& files, const FMFileID& pathID, Wish wish);
        ~CClaim();
        bool IsHeld() const { return m_isHeld; }
        CClaim(const CClaim&) = delete;
        CClaim& operator=(const CClaim&) = delete;

    private:
        CFMLiveFiles& m_files;
        const FMFileID m_pathID;
        bool m_isHeld = false;
    };

    // Caller thread: files whose table could not be written.
    void KeepUnsaved(CFMFile* file);
    /// Tries again.
    void SaveUnsaved();
    void DropUnsaved() { m_unsaved.clear(); }

    /// What FMSync writes beside the live files.
    struct Unsynced {
        bool isEvery = false;        ///< every file of the directory: too many to name them
        std::set<FMFileID> closed;   ///< paths of objects that are gone
        std::vector<CRtString> dirs; ///< directories that this process has created a directory in
        void Add(Unsynced more);
    };
    void NoteNewDirectoryIn(const CRtString& directory);
    Unsynced TakeUnsynced();
    /// For the next FMSync.
    void KeepUnsynced(Unsynced unsynced);

private:
    bool IsClaimed(const FMFileID& pathID) const;

    std::mutex m_mutex;
    std::condition_variable m_claimEnded;
    std::multimap<FMFileID, CFMFile*> m_files;
    std::vector<FMFileID> m_claimed; // one or two
    std::vector<FileRef> m_unsaved;  // caller thread
    Unsynced m_unsynced;
};
