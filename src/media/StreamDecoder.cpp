#include "media/StreamDecoder.h"

#include <MolvaneAV/Logger.h>

#include "foundation/FfmpegCompat.h"

namespace molvane {

namespace {

void Report(const char* message)
{
    if (message != nullptr)
        Logger::GetInstance()->Error(message);
}

} // namespace

CodecContextPtr OpenStreamDecoder(const AVStream* stream, bool decoderChoosesThreads,
                                  const OpenFailureMessages& messages)
{
    CodecContextPtr codecContext(avcodec_alloc_context3(nullptr));
    if (!codecContext || avcodec_parameters_to_context(codecContext.get(), stream->codecpar) < 0) {
        Report(messages.noContext);
        return nullptr;
    }
    if (decoderChoosesThreads)
        codecContext->thread_count = 0;

    compat::Codec* decoder = avcodec_find_decoder(codecContext->codec_id);
    if (decoder == nullptr) {
        Report(messages.noDecoder);
        return nullptr;
    }
    const int result = avcodec_open2(codecContext.get(), decoder, nullptr);
    if (result < 0) {
        if (messages.notOpened != nullptr)
            Logger::GetInstance()->Error(QString::fromUtf8(messages.notOpened), result);
        return nullptr;
    }
    return codecContext;
}

} // namespace molvane
