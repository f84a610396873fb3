#include "foundation/FfmpegError.h"

extern "C" {
#include <libavutil/error.h>
}

namespace molvane {

QString FfmpegErrorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(code, text, sizeof(text)) < 0 && text[0] == '\0')
        return QStringLiteral("unknown error");
    return QString::fromUtf8(text);
}

} // namespace molvane
