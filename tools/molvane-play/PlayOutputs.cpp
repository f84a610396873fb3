#include "PlayOutputs.h"

#include "foundation/FfmpegGuards.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/avconfig.h>
#include <libavutil/channel_layout.h>
}

#include <QFont>
#include <QImage>
#include <QPainter>
#include <QTransform>

#include <algorithm>

// Samples go to the muxer as they lie in memory, which must already be pcm_s16le.
static_assert(!AV_HAVE_BIGENDIAN, "WavWriter assumes a little-endian host");

namespace {

struct OutputContextDeleter {
    void operator()(AVFormatContext* context) const { avio_closep(&context->pb); avformat_free_context(context); }
};
using OutputContextPtr = std::unique_ptr<AVFormatContext, OutputContextDeleter>;

constexpr int kColumns = 4, kRows = 4, kThumbWidth = 320, kLabelHeight = 22, kGap = 8;

QString ErrorText(int code)
{
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromUtf8(text);
}

bool Fail(QString* error, const QString& reason)
{
    if (error)
        *error = reason;
    return false;
}

bool SavePng(const QImage& image, const QString& path, QString* error)
{
    // Quality 80 is zlib level 1: a 1080p sheet of grainy thumbnails is
    // written in a third of the default's time, which every run waits for.
    return image.save(path, "PNG", 80) || Fail(error, QStringLiteral("cannot write %1").arg(path));
}

int RowStride(int width) { return (3 * width + 3) & ~3; }

// The tag may hold any angle; pictures only turn in quarter steps.
int QuarterTurns(int rotation) { return ((rotation % 360 + 360) % 360 + 45) / 90 % 4; }

// Markers, placeholders and short buffers have no picture to show.
bool HasPicture(const DecodedVideoFrame* frame)
{
    return frame && frame->data && frame->status == 0 && frame->width > 0 && frame->height > 0 &&
           frame->size >= int64_t(RowStride(frame->width)) * frame->height;
}

// The picture as displayed, fitted into box.
QImage Thumbnail(const DecodedVideoFrame& frame, QSize box)
{
    const int turns = QuarterTurns(frame.rotation);
    if (turns % 2)
        box.transpose();
    // Borrows the record's pixels; scaled() makes the copy that outlives them.
    const QImage source(frame.data, frame.width, frame.height, RowStride(frame.width), QImage::Format_RGB888);
    const QImage thumb = source.scaled(box, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return turns ? thumb.transformed(QTransform().rotate(90 * turns)) : thumb;
}

} // namespace

struct WavWriter::State {
    OutputContextPtr output;
    int channels = 0;
    int64_t written = 0; // sample frames so far: the next packet's pts
    QString failure;     // the first write error, reported by Close
};

WavWriter::WavWriter() = default;
WavWriter::~WavWriter() { Close(nullptr); }

bool WavWriter::Open(const QString& path, int channels, int sampleRate, QString* error)
{
    Close(nullptr);
    if (channels < 1 || sampleRate < 1)
        return Fail(error, QStringLiteral("invalid audio format: %1 channels at %2 Hz").arg(channels).arg(sampleRate));
    AVFormatContext* raw = nullptr;
    int code = avformat_alloc_output_context2(&raw, nullptr, "wav", nullptr);
    OutputContextPtr output(raw);
    if (code < 0)
        return Fail(error, ErrorText(code));
    // Otherwise the muxer stamps its version into the file.
    output->flags |= AVFMT_FLAG_BITEXACT;
    AVStream* stream = avformat_new_stream(output.get(), nullptr);
    if (!stream)
        return Fail(error, ErrorText(AVERROR(ENOMEM)));
    AVCodecParameters* parameters = stream->codecpar;
    parameters->codec_type = AVMEDIA_TYPE_AUDIO;
    parameters->codec_id = AV_CODEC_ID_PCM_S16LE;
    parameters->sample_rate = sampleRate;
    av_channel_layout_default(&parameters->ch_layout, channels);
    stream->time_base = AVRational{1, sampleRate};
    code = avio_open(&output->pb, path.toUtf8().constData(), AVIO_FLAG_WRITE);
    if (code >= 0)
        code = avformat_write_header(output.get(), nullptr);
    if (code < 0)
        return Fail(error, QStringLiteral("%1: %2").arg(path, ErrorText(code)));
    state = std::make_unique<State>();
    state->output = std::move(output);
    state->channels = channels;
    return true;
}

void WavWriter::Write(const int16_t* interleaved, int frames)
{
    if (!state || !state->failure.isEmpty() || !interleaved || frames <= 0)
        return;
    molvane::PacketPtr packet(av_packet_alloc());
    if (!packet) {
        state->failure = ErrorText(AVERROR(ENOMEM));
        return;
    }
    // Chunks keep packet sizes within int whatever the call's length.
    constexpr int kChunk = 1 << 16;
    for (int64_t done = 0; done < frames && state->failure.isEmpty(); done += kChunk) {
        const int count = int(std::min<int64_t>(kChunk, frames - done));
        // av_write_frame only reads unowned data, so the caller's buffer is passed as it is.
        packet->data = reinterpret_cast<uint8_t*>(const_cast<int16_t*>(interleaved + done * state->channels));
        packet->size = count * state->channels * 2;
        packet->pts = packet->dts = state->written;
        packet->duration = count;
        const int code = av_write_frame(state->output.get(), packet.get());
        if (code < 0)
            state->failure = ErrorText(code);
        state->written += count;
    }
}

bool WavWriter::Close(QString* error)
{
    if (!state)
        return true;
    const std::unique_ptr<State> closing = std::move(state);
    QString failure = closing->failure;
    const int written = av_write_trailer(closing->output.get());
    const int closed = avio_closep(&closing->output->pb);
    if (failure.isEmpty() && (written < 0 || closed < 0))
        failure = ErrorText(written < 0 ? written : closed);
    return failure.isEmpty() || Fail(error, failure);
}

bool WriteContactSheet(const QString& path, const QList<std::pair<int64_t, std::shared_ptr<DecodedVideoFrame>>>& shown,
                       QString* error)
{
    // Cells take the shape of the first picture, so a movie of one size fills them.
    int thumbHeight = kThumbWidth * 9 / 16;
    const auto first = std::find_if(shown.begin(), shown.end(), [](const auto& e) { return HasPicture(e.second.get()); });
    if (first != shown.end()) {
        const DecodedVideoFrame& frame = *first->second;
        const bool turned = QuarterTurns(frame.rotation) % 2;
        const int64_t high = kThumbWidth * int64_t(turned ? frame.width : frame.height);
        thumbHeight = int(std::clamp<int64_t>(high / (turned ? frame.height : frame.width), 60, 640));
    }
    const int cellHeight = thumbHeight + kLabelHeight;
    QImage sheet(kGap + kColumns * (kThumbWidth + kGap), kGap + kRows * (cellHeight + kGap), QImage::Format_RGB32);
    sheet.fill(QColor(40, 40, 40));
    QPainter painter(&sheet);
    QFont font = painter.font();
    font.setPixelSize(14);
    painter.setFont(font);
    painter.setPen(Qt::white);
    const int count = std::min(int(shown.size()), kColumns * kRows);
    for (int i = 0; i < count; ++i) {
        const int x = kGap + (i % kColumns) * (kThumbWidth + kGap);
        const int y = kGap + (i / kColumns) * (cellHeight + kGap);
        painter.fillRect(x, y, kThumbWidth, thumbHeight, Qt::black);
        if (HasPicture(shown[i].second.get())) {
            const QImage thumb = Thumbnail(*shown[i].second, QSize(kThumbWidth, thumbHeight));
            painter.drawImage(x + (kThumbWidth - thumb.width()) / 2, y + (thumbHeight - thumb.height()) / 2, thumb);
        }
        painter.drawText(QRect(x, y + thumbHeight, kThumbWidth, kLabelHeight), Qt::AlignCenter,
                         FormatTime(shown[i].first));
    }
    painter.end();
    return SavePng(sheet, path, error);
}

void Envelope::Add(const int16_t* interleaved, int frames)
{
    for (int f = 0; f < frames; ++f, interleaved += channels) {
        if (lows.empty() || inLast == perColumn) {
            if (Columns() == 2 * kMaxColumns) {
                // Full: every two columns become one.
                for (int64_t column = 0; column < kMaxColumns; ++column) {
                    for (int c = 0; c < channels; ++c) {
                        const size_t to = size_t(column * channels + c), from = size_t(2 * column * channels + c);
                        lows[to] = std::min(lows[from], lows[from + size_t(channels)]);
                        highs[to] = std::max(highs[from], highs[from + size_t(channels)]);
                    }
                }
                lows.resize(size_t(kMaxColumns * channels));
                highs.resize(size_t(kMaxColumns * channels));
                perColumn *= 2;
            }
            lows.insert(lows.end(), interleaved, interleaved + channels);
            highs.insert(highs.end(), interleaved, interleaved + channels);
            inLast = 1;
            continue;
        }
        const size_t last = lows.size() - size_t(channels);
        for (int c = 0; c < channels; ++c) {
            lows[last + size_t(c)] = std::min(lows[last + size_t(c)], interleaved[c]);
            highs[last + size_t(c)] = std::max(highs[last + size_t(c)], interleaved[c]);
        }
        ++inLast;
    }
}

bool WriteWaveform(const QString& path, const Envelope& envelope, QString* error)
{
    const int channels = envelope.Channels();
    const int64_t columns = envelope.Columns();
    if (channels < 1)
        return Fail(error, QStringLiteral("no samples to draw"));
    constexpr int width = 1600;
    const int lane = std::clamp(800 / channels, 60, 200);
    const int half = lane / 2 - 2;
    QImage image(width, lane * channels, QImage::Format_RGB32);
    image.fill(QColor(24, 24, 24));
    QPainter painter(&image);
    painter.setPen(QColor(80, 80, 80));
    for (int c = 0; c < channels; ++c) { // lane border and zero line
        painter.drawLine(0, c * lane, width, c * lane);
        painter.drawLine(0, c * lane + lane / 2, width, c * lane + lane / 2);
    }
    painter.setPen(QColor(90, 200, 120));
    for (int x = 0; x < width && columns > 0; ++x) {
        // Every pixel shows at least one column, so short sounds still fill the width.
        const int64_t begin = columns * x / width;
        const int64_t end = std::max(begin + 1, columns * (x + 1) / width);
        for (int c = 0; c < channels; ++c) {
            int low = 32767, high = -32768;
            for (int64_t column = begin; column < end; ++column) {
                low = std::min(low, envelope.Low(column, c));
                high = std::max(high, envelope.High(column, c));
            }
            const int centre = c * lane + lane / 2;
            painter.drawLine(x, centre - high * half / 32768, x, centre - low * half / 32768);
        }
    }
    painter.end();
    return SavePng(image, path, error);
}

QString FormatTime(int64_t micros)
{
    const long long ms = std::max<int64_t>(micros, 0) / 1000;
    return QString::asprintf("%02lld:%02lld:%02lld.%03lld", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
}
