// Decoding and seeking as a host does it: a plain decode delivers every
// picture once, in order, at its time; with a target, the pictures the
// trailing limit lets through, exactly as the plain decode made them. Also
// stills, audio-only sources and refused seeks.

#include "support/DecodeSummary.h"

#include <MolvaneAV/Settings.h>

#include <QCryptographicHash>

#include <tuple>
#include <vector>

using namespace molvane::test;

namespace {

// The active streams and source audio, then everything the instance decodes
// without a target: the pictures, and the first one's size, rate, rotation
// and start. `drain` is where the pictures of the last call, the one that
// drains the decoder, begin.
std::string Pump(MediaInstance& instance, VideoRecords& video, int& drain)
{
    EXPECT_TRUE(instance.HasPacket());
    const bool both = instance.GetActiveAudioStreamIndex() >= 0 && instance.GetActiveVideoStreamIndex() >= 0;
    EXPECT_TRUE(both || instance.IsAudioPacket() == (instance.GetActiveVideoStreamIndex() < 0));
    QString text = QString("a%1 v%2 %3ch %4Hz %5B%6%7;")
                       .arg(instance.GetActiveAudioStreamIndex()).arg(instance.GetActiveVideoStreamIndex())
                       .arg(instance.GetChannelCount()).arg(instance.GetSampleRate()).arg(instance.GetBytesPerSample())
                       .arg(instance.IsPlaner() ? " planar" : "")
                       .arg(instance.RequiresLargeSeekOffset() ? " early" : "");
    Decoded decoded;
    for (; instance.HasPacket() && decoded.calls < 10000; ++decoded.calls) {
        drain = decoded.video.size();
        instance.DecodePacket(decoded.audio, decoded.video, -1);
        // The audio packets behind the decoded one went along with it.
        EXPECT_FALSE(instance.IsAudioPacket());
    }
    EXPECT_TRUE(instance.IsEndOfFile());
    // Nothing waits any more, so nothing more comes.
    instance.DecodePacket(decoded.audio, decoded.video, -1);
    text += " " + QString::fromStdString(Pictures(video = decoded.video));
    if (video.size() > 1) {
        const DecodedVideoFrame& p = *video[0];
        text += QString(" %1x%2 %3fps %4° from %5").arg(p.width).arg(p.height).arg(p.frameRate).arg(p.rotation)
                    .arg(p.startTime);
    }
    return text.toStdString();
}

// A picture's record: start (-1 for the end-of-stream marker), size, status
// and the digest of its bytes, unless they do not count.
auto Record(const DecodedVideoFrame& frame, bool bytes)
{
    const QByteArray data = QByteArray::fromRawData(reinterpret_cast<const char*>(frame.data), bytes ? frame.size : 0);
    return std::tuple(frame.data ? frame.startTime : -1, frame.width, frame.height, frame.status,
                      QCryptographicHash::hash(data, QCryptographicHash::Md5));
}

} // namespace

TEST(Seek, PlainDecodeDeliversEveryPictureOnceAndSkippingLeadInPicturesChangesNoRecord)
{
    // A plain decode, summed up. Then, for the files whose codecs have them,
    // decodes from the start with targets in the middle, in the drain at the
    // end and past it: pictures the trailing limit drops and that nothing
    // refers to go undecoded, without changing a record delivered (the
    // plain decode's, cut as the limit cuts: a dropped picture in the drain
    // ends it, and its marker). Damaged pictures are concealed from the
    // picture decoded last, which a skipped one would have been: there only
    // the pictures and times stay.
    const std::string h264 = "0-49 end 320x240 25fps 0° from 0", gop75 = "0-74 end 320x240 25fps 0° from 0";
    const std::tuple<const char*, bool, std::string> rows[] = {
        {"h264_aac.mp4", false, "a1 v0 2ch 48000Hz 4B planar; " + h264},
        {"mpeg4.mp4", true, "a-1 v0 0ch 0Hz 0B; " + h264},
        {"mpeg1.mpg", true, "a1 v0 2ch 48000Hz 2B planar early; " + h264},
        {"mpeg2.ts", true, "a1 v0 2ch 48000Hz 2B planar; 0-24 end 160x120 25fps 0° from 0"},
        // Pictures before the stream's zero keep their negative times.
        {"negative_start.ts", false, "a-1 v0 0ch 0Hz 0B; 0-49 end 320x240 25fps 0° from -80000"},
        {"ntsc.mp4", true, "a-1 v0 0ch 0Hz 0B; 0-59 end 320x240 29.97fps 0° from 0"},
        {"long_gop.mp4", true, "a1 v0 2ch 48000Hz 4B planar; 0-199 end 320x240 25fps 0° from 0"},
        {"long_gop_damaged.mp4", true, ""},
        {"hevc_open_gop.mkv", true, "a-1 v0 0ch 0Hz 0B; " + gop75},
        {"vp8.webm", true, "a-1 v0 0ch 0Hz 0B; " + gop75},
        {"rotated_90.mp4", false, "a-1 v0 0ch 0Hz 0B; 0-24 end 320x240 25fps 90° from 0"},
        // Ten pictures at 320x240, the size decoding was set up for, then ten
        // at 256x144, which become placeholders. A placeholder ends its call,
        // also while draining: no marker.
        {"size_change.ts", true, "a-1 v0 0ch 0Hz 0B; 0-9 256x144×7 320x240 25fps 0° from 0"},
        // Its middle part is 480x360.
        {"ad_break.ts", true, "a1 v0 2ch 48000Hz 2B planar; 0-24 480x360×25 50-74 end 320x240 25fps 0° from 0"},
        // The larger of two pictures; the subtitles reach no converter.
        {"multi_stream.mkv", false, "a2 v0 2ch 48000Hz 2B; " + h264},
        {"no_packets.mp4", false, "a-1 v0 0ch 0Hz 0B; end"},
        {"u8_stereo.wav", false, "a0 v-1 2ch 22050Hz 1B; "},
    };
    for (const auto& [file, leadIn, summary] : rows) {
        SCOPED_TRACE(file);
        MediaInstance instance;
        const auto info = Probe(file);
        ASSERT_TRUE(instance.Initialize(info, 0));
        VideoRecords plain;
        int drain = 0;
        const std::string pumped = Pump(instance, plain, drain);
        // Damaged pictures are concealed as the decoder sees fit.
        EXPECT_TRUE(summary.empty() || pumped == summary) << pumped;
        const double frame = 1e6 / info->GetFrameRate(), limit = Settings::maxTrailingFramesAfterSeek * frame;
        const bool bytes = !QString(file).contains("damaged");
        std::vector<int64_t> targets;
        for (int back : {2, int(plain.size()) / 2, 8, 4, 3, 2}) {
            if (leadIn && plain.size() > 12)
                targets.push_back(plain[plain.size() - back]->startTime +
                                  int64_t(targets.empty() ? 5 * frame : frame / 2));
        }
        for (const int64_t target : targets) {
            std::vector<decltype(Record(*plain[0], true))> expected, delivered;
            for (int k = 0; k < plain.size(); ++k) {
                const int64_t start = plain[k]->data ? plain[k]->startTime : -1;
                const bool dropped = start >= 0 && double(start) < double(target) - limit;
                if (dropped && k >= drain)
                    break;
                if (!dropped)
                    expected.push_back(Record(*plain[k], bytes));
            }
            instance.CloseInput();
            for (const auto& picture : DecodeAll(instance, target).video)
                delivered.push_back(Record(*picture, bytes));
            EXPECT_TRUE(delivered == expected) << "T=" << target << ": " << delivered.size() << " records, not "
                                               << expected.size();
        }
    }
}

TEST(Seek, DeliversWhatTheTrailingLimitLetsThroughAtTheTickTheStreamCounts)
{
    // Rows of one file share an instance, jumping both ways, each decoding to
    // the end. h264_aac.mp4 has key frames at pictures 0 and 25, so more
    // pictures lead to each target than the limit lets through; picture P
    // covers P × 40 ms + 20 ms. A seek to -1 reopens the input instead: the
    // way back to the very first picture where a seek to 0 can land past it.
    // File, trailing limit, seek, target, what is logged and what comes.
    const std::tuple<const char*, int, int64_t, int64_t, const char*> rows[] = {
        {"h264_aac.mp4", 6, 500000, 500000, "7-49 end"},
        {"h264_aac.mp4", 6, 1500000, 1500000, "32-49 end"},
        {"h264_aac.mp4", 1, 300000, 300000, "7-49 end"},
        {"h264_aac.mp4", 1, 1820000, 1820000, "45-49 end"},
        // Past the end every picture is dropped, and the drop that meets the
        // drain ends the call: no end-of-stream marker either.
        {"h264_aac.mp4", 6, 1900000, 5000000, ""},
        {"h264_aac.mp4", 6, -1, -1, "0-49 end"},
        // WebM counts milliseconds; picture 30 is the key frame at 1.2 s.
        {"vp8.webm", 6, 1199600, -1, "30-74 end"},
        {"vp8.webm", 6, 1199400, -1, "0-74 end"},
        {"vp8.webm", 6, 1200400, -1, "30-74 end"},
        // A still shows its picture in the first call, and again after every seek, never
        // a marker; the trailing limit drops it for a target a second on.
        {"still.png", 6, -1, -1, "0"},
        {"still.png", 6, 5000000, -1, "0"},
        {"still.png", 6, 0, 1000000, ""},
        // Without video, the audio stream positions a seek, just before the
        // target's sample. The first seek opens the input.
        {"s16_stereo.wav", 6, 1200000, 1200000, "15 records from 1200000"},
        {"s16_stereo.wav", 6, 333333, 333333, "55 records from 333333"},
        {"s16_stereo.wav", 6, 0, 0, "71 records from 0"},
        {"s16_stereo.wav", 6, 20833, 20833, "70 records from 20833"},
        // A refused seek leaves the decoding where it was: at the end.
        {"s16_stereo.wav", 6, -1, -1, "71 records from 0"},
        {"s16_stereo.wav", 6, -1000000, -1, "[Seek Failed. (code -1: Operation not permitted)]"},
        // Opus in WebM starts at -7 ms: a seek to 0 goes by the container's start.
        {"opus.webm", 6, -1, -1, "151 records from -7000"},
        {"opus.webm", 6, 0, -1, "151 records from -7000"},
    };
    const int saved = Settings::maxTrailingFramesAfterSeek;
    MediaInstance instance;
    std::shared_ptr<MediaInfo> info;
    QString file;
    for (const auto& [name, limit, seek, target, outcome] : rows) {
        SCOPED_TRACE(testing::Message() << name << " seek " << seek << " target " << target);
        if (file != name) {
            file = name;
            ASSERT_TRUE(instance.Initialize(info = Probe(file, file.endsWith(".png")), 0));
        }
        Settings::maxTrailingFramesAfterSeek = limit;
        LogCapture log;
        seek == -1 ? instance.CloseInput() : instance.Seek(seek);
        const Decoded decoded = DecodeAll(instance, target, file.endsWith(".png") ? 1 : 100000);
        Settings::maxTrailingFramesAfterSeek = saved;
        std::string text;
        for (const QString& message : log.Messages())
            text += "[" + message.toStdString() + "]";
        text += Pictures(decoded.video);
        if (info->GetNumVideoStreams() == 0 && !decoded.audio.isEmpty()) {
            const DecodedAudioFrame& first = *decoded.audio[0];
            // Positional samples: each carries its own index.
            const double at = file.endsWith(".wav") ? SamplePosition(first.samples, 2) * 1e6 / 48000 : first.startTime;
            EXPECT_NEAR(double(first.startTime), at, 1.0);
            text += std::to_string(decoded.audio.size()) + " records from " + std::to_string(first.startTime);
        }
        EXPECT_EQ(text, outcome);
        for (const auto& still : file.endsWith(".png") ? decoded.video : VideoRecords()) {
            EXPECT_EQ(std::tuple(still->width, still->height, still->startTime, still->frameRate),
                      std::tuple(320, 240, int64_t(0), Settings::DEFAULT_IMAGE_SEQUENCE_FRAME_RATE));
        }
    }
}
