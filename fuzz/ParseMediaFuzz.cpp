// Probes arbitrary bytes as a media file: probing, the property readers and
// the start-time probe must never crash, hang or leak on any input.
//
//   parse_media_fuzz -max_len=65536 -timeout=10 corpus/
//
// Seed the corpus with the test media: tests/support/make_test_media.sh corpus/

#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

extern "C" {
#include <libavutil/log.h>
}

#include <QLoggingCategory>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    av_log_set_level(AV_LOG_QUIET);
    QLoggingCategory::setFilterRules(QStringLiteral("molvane.av=false"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const std::string path = "/tmp/molvane-fuzz-" + std::to_string(getpid()) + ".bin";
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr)
        return 0;
    std::fwrite(data, 1, size, file);
    std::fclose(file);

    for (bool image : {false, true}) {
        auto info = std::make_shared<MediaInfo>(QString::fromStdString(path));
        info->isImage = image;
        if (MediaReader::ParseMedia(info) != info->IsInitialized())
            __builtin_trap();
    }
    return 0;
}
