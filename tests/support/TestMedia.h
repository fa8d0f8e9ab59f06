// Generated media fixtures for tests, and FFmpeg's own decode of a file.
//
// Contract
// - Every fixture is made from a deterministic test signal (`ToneSpec`): one
//   sine per channel, each channel at its own frequency, plus a little noise
//   from a seeded PRNG. The same spec always gives the same bytes.
// - WAV files for the packed sample-format codes 0–4 (u8, s16, s32, f32, f64)
//   are written by our own RIFF writer (WAVE_FORMAT_PCM for 0–2,
//   WAVE_FORMAT_IEEE_FLOAT for 3–4). Everything else is encoded from such a WAV
//   with the `ffmpeg` program (run with -nostdin -loglevel error).
// - File names are derived from the kind and the tone description, and a file that already
//   exists in the folder is reused, so each fixture is generated once per
//   folder. `TestMedia::shared()` is one folder per test process.
// - A generator that fails (no `ffmpeg`, an encoder missing) returns an empty
//   string and logs why; tests ASSERT on a non-empty path.
// - Thread-safe: one instance may be used from several threads.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <mutex>
#include <optional>

namespace brindle::test {

// The test signal: `frames` samples per channel at `sampleRate`, `channels`
// interleaved channels. Channel c is a sine at 200 + 150 × c Hz (so no two
// channels are alike) with peak `amplitude`, plus uniform noise of peak
// `noise` from a PRNG seeded with `seed`.
struct ToneSpec {
    int channels = 2;
    int sampleRate = 44100;
    int64_t frames = 44100;
    uint32_t seed = 1;
    double amplitude = 0.5;
    double noise = 0.01;

    // A short, stable text naming the tone description ("c2-r44100-n44100-s1-a500-z10").
    QString tag() const;
};

// The signal value of channel `channel` at frame `frame`, in -1..1. Values
// are reproducible (the noise is a hash of seed, frame and channel).
double toneValue(const ToneSpec& spec, int64_t frame, int channel);

// The signal as interleaved PCM in a packed sample-format code 0–4
// (0 u8 with silence at 128, 1 s16, 2 s32, 3 f32, 4 f64; little-endian).
// Empty for other codes.
QByteArray toneSamples(const ToneSpec& spec, int32_t sampleFormat);

// Bytes of one sample of a packed code 0–4 (0 for others).
int bytesPerSampleOfFormat(int32_t sampleFormat);

class TestMedia {
public:
    // Writes fixtures into `folder` (created if needed).
    explicit TestMedia(const QString& folder);

    // The process-wide instance, in a folder below the test environment's root.
    static TestMedia& shared();

    QString folder() const { return m_folder; }

    // --- WAV written by our own RIFF writer -------------------------------
    // A WAV of the signal in sample-format code 0–4.
    QString wav(int32_t sampleFormat, const ToneSpec& spec = {});
    // Writes a WAV of given interleaved samples to `path` (codes 0–4). The
    // sample count is taken from the data size.
    static bool writeWav(const QString& path, int32_t sampleFormat, int channels, int sampleRate,
                         const QByteArray& interleaved);

    // --- encoded by the ffmpeg program ------------------------------------
    QString wav24(const ToneSpec& spec = {});          // 24-bit PCM WAV (decodes as s32)
    QString mp3Cbr(const ToneSpec& spec = {});         // 128 kb/s, with an Info header
    QString mp3VbrXing(const ToneSpec& spec = {});     // VBR (-q:a 4) with a Xing header
    QString mp3VbrNoXing(const ToneSpec& spec = {});   // VBR without a Xing header
    QString mp3WithCoverArt(const ToneSpec& spec = {});  // a PNG as an attached_pic video stream
    QString m4a(const ToneSpec& spec = {});            // AAC in an iPod M4A
    QString flac(const ToneSpec& spec = {});           // from a 16-bit source
    QString oggVorbis(const ToneSpec& spec = {});

    // Encodes the signal's s16 WAV (or f32 WAV when `floatSource`) with the
    // given ffmpeg output arguments into `name` in the folder.
    QString encode(const ToneSpec& spec, const QString& name, const QStringList& outputArguments,
                   bool floatSource = false);

    // --- broken and protected files ---------------------------------------
    QString empty(const QString& name = QStringLiteral("empty.mp3"));
    // The first `bytes` bytes of `source`, written as `name`.
    QString truncated(const QString& source, qint64 bytes, const QString& name);
    // A copy of `source` with about one byte in `interval` replaced by a
    // seeded random byte, written as `name`.
    QString damaged(const QString& source, int interval, uint32_t seed, const QString& name);
    // `bytes` seeded random bytes written as `name` (e.g. "garbage.mp3").
    QString garbage(qint64 bytes, const QString& name = QStringLiteral("garbage.mp3"), uint32_t seed = 7);
    // An M4A whose sample-entry fourcc "mp4a" is patched to `fourcc` ("drms").
    QString m4aWithSampleEntry(const QByteArray& fourcc, const ToneSpec& spec = {});
    QString m4aDrmTagged(const ToneSpec& spec = {}) { return m4aWithSampleEntry("drms", spec); }
    // An MP4 (AAC) encrypted with CENC (AES-CTR); its packets carry encryption side data.
    QString m4aEncrypted(const ToneSpec& spec = {});

    // --- the ffmpeg program -----------------------------------------------
    static bool ffmpegAvailable();
    // Runs ffmpeg with -nostdin -loglevel error -y and `arguments`. False (and a
    // log line with its error output) when it fails or takes over `timeoutMs`.
    static bool runFfmpeg(const QStringList& arguments, int timeoutMs = 120000);
    // FFmpeg's own decode of the first audio stream of `path` as raw
    // interleaved PCM in packed code 0–4 (u8, s16le, s32le, f32le, f64le),
    // with no resampling and no channel change. nullopt when ffmpeg fails.
    static std::optional<QByteArray> decodeWithFfmpeg(const QString& path, int32_t sampleFormat);

private:
    QString pathFor(const QString& name) const;
    // Returns the path of `name`, creating it with `make(path)` unless it exists.
    template <class Make>
    QString cached(const QString& name, Make make);

    QString m_folder;
    std::recursive_mutex m_mutex;
};

}  // namespace brindle::test
