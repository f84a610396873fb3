#include "AudioDevice.h"

#include <alsa/asoundlib.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <limits>
#include <cmath>

namespace {

constexpr double kMicros = 1e6;

void IgnoreAlsaError(const char*, int, const char*, int, const char*, ...) {}

// Standard error pointed at /dev/null for a scope: the device library's
// hosts (JACK among them) report their absence there while probing.
class QuietStderr
{
public:
    QuietStderr() : saved(dup(STDERR_FILENO))
    {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~QuietStderr()
    {
        if (saved >= 0) {
            dup2(saved, STDERR_FILENO);
            close(saved);
        }
    }
    QuietStderr(const QuietStderr&) = delete;
    QuietStderr& operator=(const QuietStderr&) = delete;

private:
    const int saved;
};

QString Reason(PaError code) { return QString::fromUtf8(Pa_GetErrorText(code)); }

} // namespace

AudioDevice::AudioDevice(molvane::Player& player) : player(player) {}

AudioDevice::~AudioDevice()
{
    Close();
}

bool AudioDevice::Open(QString* error)
{
    Close();
    channels = player.AudioChannels();
    rate = player.AudioSampleRate();
    if (!player.HasAudio() || channels < 1 || rate < 1) {
        *error = QStringLiteral("the file has no sound");
        return false;
    }
    snd_lib_error_set_handler(IgnoreAlsaError);
    PaError code = paNoError;
    {
        const QuietStderr quiet;
        code = Pa_Initialize();
    }
    if (code != paNoError) {
        *error = Reason(code);
        return false;
    }
    initialized = true;
    PaStreamParameters output{};
    output.device = Pa_GetDefaultOutputDevice();
    if (output.device == paNoDevice) {
        *error = QStringLiteral("no output device (is a sound server running?)");
        Close();
        return false;
    }
    const PaDeviceInfo* info = Pa_GetDeviceInfo(output.device);
    output.channelCount = channels;
    output.sampleFormat = paInt16;
    // The high latency: the picture is corrected by it anyway, and a longer
    // queue survives a busy machine without gaps.
    output.suggestedLatency = info ? info->defaultHighOutputLatency : 0.1;
    framesDone = microsAdvanced = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        last = firstOfEpoch = Last();
    }
    {
        const QuietStderr quiet;
        code = Pa_OpenStream(&stream, nullptr, &output, rate, paFramesPerBufferUnspecified, paClipOff, &Callback, this);
        // Known before the callback first runs, which reads it.
        if (code == paNoError) {
            if (const PaStreamInfo* streamInfo = Pa_GetStreamInfo(stream))
                latencyMicros = int64_t(streamInfo->outputLatency * kMicros);
            code = Pa_StartStream(stream);
        }
    }
    if (code != paNoError) {
        *error = QStringLiteral("%1 (%2, %3 channels at %4 Hz)")
                     .arg(Reason(code), QString::fromUtf8(info ? info->name : "?"))
                     .arg(channels)
                     .arg(rate);
        Close();
        return false;
    }
    return true;
}

void AudioDevice::PlayOut()
{
    if (!stream)
        return;
    double end = 0.0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        end = last.endTime;
    }
    // Bounded: a device that stopped playing does not hold the program.
    const double limit = Pa_GetStreamTime(stream) + 2.0;
    while (Pa_IsStreamActive(stream) == 1 && Pa_GetStreamTime(stream) < std::min(end, limit))
        Pa_Sleep(5);
}

void AudioDevice::Close()
{
    if (stream) {
        Pa_StopStream(stream);
        Pa_CloseStream(stream);
        stream = nullptr;
    }
    if (initialized) {
        Pa_Terminate();
        initialized = false;
    }
}

int64_t AudioDevice::Now() const
{
    return stream ? int64_t(Pa_GetStreamTime(stream) * kMicros) : 0;
}

int64_t AudioDevice::ShownPosition() const
{
    Last heard, first;
    {
        std::lock_guard<std::mutex> lock(mutex);
        heard = last;
        first = firstOfEpoch;
    }
    if (!stream || !heard.valid || heard.epoch != epoch)
        return player.Position();
    const double now = Pa_GetStreamTime(stream);
    // Until the first buffer of a new place plays, the old one is heard:
    // the picture waits at the new place rather than going back to the old.
    if (first.valid && first.epoch == heard.epoch && now < first.dacTime)
        return first.position;
    const double position = double(heard.position) + heard.speed * (now - heard.dacTime) * kMicros;
    // A stream that does not say how long it is has no end yet.
    const int64_t duration = player.Duration();
    const int64_t end = duration > 0 ? duration - 1 : std::numeric_limits<int64_t>::max();
    return std::clamp<int64_t>(int64_t(std::floor(position)), 0, end);
}

void AudioDevice::TakeRecording(std::vector<int16_t>& outSamples, std::vector<Buffer>& outBuffers)
{
    std::lock_guard<std::mutex> lock(mutex);
    outSamples.swap(samples);
    outBuffers.swap(buffers);
    samples.clear();
    buffers.clear();
}

int AudioDevice::Callback(const void*, void* output, unsigned long frames, const PaStreamCallbackTimeInfo* time,
                          PaStreamCallbackFlags, void* self)
{
    auto* device = static_cast<AudioDevice*>(self);
    // Some hosts leave the time of the buffer at 0: then it plays after the stream's latency.
    const double dac = time && time->outputBufferDacTime > 0.0 ? time->outputBufferDacTime
                       : Pa_GetStreamTime(device->stream) + double(device->latencyMicros) / kMicros;
    device->Fill(static_cast<int16_t*>(output), int(frames), dac);
    return paContinue;
}

void AudioDevice::Fill(int16_t* out, int frames, double dacTime)
{
    const int at = epoch;
    const int64_t position = player.Position();
    const double speed = player.Speed();
    if (!player.FillAudio(out, frames, volume) && speed > 0.0)
        ++silentBuffers;
    // The clock moves by the time this buffer lasts, counted from the first
    // buffer so that rounding never adds up.
    const int64_t before = framesDone;
    framesDone += frames;
    const int64_t micros = framesDone * int64_t(kMicros) / rate;
    player.Advance(micros - microsAdvanced);
    microsAdvanced = micros;
    std::lock_guard<std::mutex> lock(mutex);
    // A clock held at an end fills silence from the same position: the sound
    // heard keeps moving from the last buffer that moved it.
    const bool held = last.valid && last.epoch == at && speed != 0.0 && position == last.position;
    if (!held)
        last = Last{true, at, position, speed, dacTime, dacTime + double(frames) / rate};
    if (!firstOfEpoch.valid || firstOfEpoch.epoch != at)
        firstOfEpoch = last;
    if (recording) {
        samples.insert(samples.end(), out, out + int64_t(frames) * channels);
        buffers.push_back(Buffer{int64_t(dacTime * kMicros), before, position, frames});
    }
}
