#include "remove.h"

#include <cerrno>

#include "FMCatalog.h"
#include "RtResult.h"
#include "failure.h"
#include "platform.h"
#include "scan.h"

std::string RemoveFromStore(const std::filesystem::path& store, const CRtString& stem, bool force) {
    errno = 0;
    const int result = FMRemoveCachedFile(LibraryPath(store), stem, force);
    const int error = errno;
    if (RT_SUCCEEDED(result) || result == RT_ERROR_NOT_FOUND)
        return "";
    if (result == RT_ERROR_NOT_READY)
        return IN_USE;
    // The result of a failed open does not always reach errno.
    if (!CanWriteInto(store))
        return "no write access to the store: " + ErrorText(errno);
    return "cannot be removed" + (error != 0 ? ": " + ErrorText(error) : "");
}
