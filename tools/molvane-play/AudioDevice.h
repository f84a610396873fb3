#pragma once

// The engine's sound on the default PortAudio output. The device callback
// fills each buffer from the engine at the decoded rate and channel count,
// then moves the play clock by the time that buffer lasts, so the clock
// follows the device. ShownPosition gives the media time being heard now:
// the position of the last buffer filled, corrected by the time until the
// device plays it.

#include <MolvaneAV/Player.h>

#include <QString>

#include <portaudio.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

class AudioDevice
{
public:
    // What one callback did, for the log of a diagnostic run.
    struct Buffer {
        int64_t dacMicros = 0;     // device time when its first sample frame is heard
        int64_t firstFrame = 0;    // index of its first sample frame among all the device received
        int64_t position = 0;      // the play position it was filled from
        int frames = 0;
    };

    explicit AudioDevice(molvane::Player& player);
    ~AudioDevice();
    AudioDevice(const AudioDevice&) = delete;
    AudioDevice& operator=(const AudioDevice&) = delete;

    // Opens and starts the default output; false with a one-line reason.
    // Keeps the device library quiet on stderr: its probing of absent
    // hosts is not news to the user.
    bool Open(QString* error);
    // Waits until the device has played what it was given so far (the end
    // of a file should be heard before the device goes).
    void PlayOut();
    void Close();
    bool IsOpen() const { return stream != nullptr; }

    void SetVolume(double value) { volume = value; }
    double Volume() const { return volume; }

    // The device's clock (µs), on which the buffers' times are given.
    int64_t Now() const;
    // The media time heard now; the engine's position until a buffer was
    // filled after the last Rebase.
    int64_t ShownPosition() const;
    // Call right after changing the engine's clock (speed, seek, step):
    // buffers filled before no longer say what is shown.
    void Rebase() { ++epoch; }

    int64_t SilentBuffers() const { return silentBuffers; }
    int64_t OutputLatencyMicros() const { return latencyMicros; }

    // Keeps what the device receives and a record per buffer until taken.
    void SetRecording(bool on) { recording = on; }
    void TakeRecording(std::vector<int16_t>& samples, std::vector<Buffer>& buffers);

private:
    static int Callback(const void* input, void* output, unsigned long frames, const PaStreamCallbackTimeInfo* time,
                        PaStreamCallbackFlags flags, void* self);
    void Fill(int16_t* out, int frames, double dacTime);

    molvane::Player& player;
    PaStream* stream = nullptr;
    bool initialized = false;
    int channels = 0, rate = 0;
    int64_t latencyMicros = 0;
    std::atomic<double> volume{1.0};
    std::atomic<int> epoch{0};
    std::atomic<int64_t> silentBuffers{0};
    std::atomic<bool> recording{false};
    int64_t framesDone = 0, microsAdvanced = 0; // the callback's alone

    mutable std::mutex mutex; // guards the last buffer and the recording
    struct Last {
        bool valid = false;
        int epoch = 0;
        int64_t position = 0;
        double speed = 0.0;
        double dacTime = 0.0;
        double endTime = 0.0; // when its last sample frame has been heard
    } last, firstOfEpoch;
    std::vector<int16_t> samples;
    std::vector<Buffer> buffers;
};
