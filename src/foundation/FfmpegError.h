#pragma once

#include <QString>

namespace molvane {

// FFmpeg's text for a result code (av_err2str cannot be used from C++).
QString FfmpegErrorText(int code);

} // namespace molvane
