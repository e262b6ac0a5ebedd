// The names of error numbers. Both systems report errors of files and directories as errno.
#include <array>
#include <cerrno>
#include <system_error>

#include "RtOs.h"

namespace {

struct Name {
    int error;
    const char* text;
};
#define RT_ERROR_NAME(name)                                                                        \
    Name { name, #name }
constexpr std::array NAMES{
    RT_ERROR_NAME(EACCES),    RT_ERROR_NAME(EBADF),  RT_ERROR_NAME(EBUSY),
    RT_ERROR_NAME(EEXIST),    RT_ERROR_NAME(EFBIG),  RT_ERROR_NAME(EINTR),
    RT_ERROR_NAME(EINVAL),    RT_ERROR_NAME(EIO),    RT_ERROR_NAME(EISDIR),
    RT_ERROR_NAME(ELOOP),     RT_ERROR_NAME(EMFILE), RT_ERROR_NAME(ENAMETOOLONG),
    RT_ERROR_NAME(ENFILE),    RT_ERROR_NAME(ENODEV), RT_ERROR_NAME(ENOENT),
    RT_ERROR_NAME(ENOMEM),    RT_ERROR_NAME(ENOSPC), RT_ERROR_NAME(ENOTDIR),
    RT_ERROR_NAME(ENOTEMPTY), RT_ERROR_NAME(EPERM),  RT_ERROR_NAME(EROFS),
#ifdef EDQUOT
    RT_ERROR_NAME(EDQUOT),
#endif
};
#undef RT_ERROR_NAME

} // namespace

namespace RtOs {

int GetErrno() { return errno; }

CRtString GetErrorText(int error) {
    std::string name = "error " + std::to_string(error);
    for (const Name& each : NAMES) {
        if (each.error == error)
            name = each.text;
    }
    return CRtString(name + " (" + std::generic_category().message(error) + ")");
}

} // namespace RtOs
