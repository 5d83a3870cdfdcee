// The error register.

#include <sharesnap/platform/error.h>

namespace {

// Plain data, so that reading it costs no more than reading errno.
struct Register {
    unsigned int uCode = 0;
    int nLine = 0;
    const char *szFile = "";
};

thread_local Register t_register;

} // namespace

void QLIBCErrSetEx(unsigned int uCode, const char *szFile, int nLine) {
    t_register.uCode = uCode;
    t_register.nLine = nLine;
    t_register.szFile = szFile != nullptr ? szFile : "";
}

unsigned int QLIBCErrGet(void) {
    return t_register.uCode;
}

const char *QLIBCErrorGetFile(void) {
    return t_register.szFile;
}

int QLIBCErrorGetLine(void) {
    return t_register.nLine;
}
