#include "RtPath.h"

#include "os/RtOs.h"

void RtSetUtf8Paths(bool isUtf8) { RtOs::SetUtf8Paths(isUtf8); }
