#include "support/TestMedia.h"

#include "support/ChildProcess.h"
#include "support/TestEnvironment.h"

#include "foundation/Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace brindle::test {

namespace {

constexpr double kTwoPi = 6.283185307179586;

// A stateless 64-bit mix (splitmix64's finaliser): the noise of one sample is
// a hash of its seed, frame and channel, so any sample can be computed alone.
uint64_t mix64(uint64_t x)
{
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// Uniform in [-1, 1).
double noiseValue(uint32_t seed, int64_t frame, int channel)
{
    uint64_t h = mix64((uint64_t(seed) << 40) ^ (uint64_t(channel) << 56) ^ uint64_t(frame));
    return double(h >> 11) / double(1ull << 52) - 1.0;
}

template <class T>
void appendLittleEndian(QByteArray& out, T value)
{
    char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));  // the test machines are little-endian
    out.append(bytes, sizeof(T));
}

void appendTag(QByteArray& out, const char* tag)
{
    out.append(tag, 4);
}

int32_t clampToInt32(double scaled)
{
    return int32_t(std::clamp(std::lround(scaled), long(INT32_MIN), long(INT32_MAX)));
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        log(QStringLiteral("TestMedia: cannot write %1").arg(path));
        return false;
    }
    file.write(bytes);
    return file.commit();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

const char* rawFormatName(int32_t sampleFormat)
{
    switch (sampleFormat) {
    case 0: return "u8";
    case 1: return "s16le";
    case 2: return "s32le";
    case 3: return "f32le";
    case 4: return "f64le";
    default: return nullptr;
    }
}

const char* rawCodecName(int32_t sampleFormat)
{
    switch (sampleFormat) {
    case 0: return "pcm_u8";
    case 1: return "pcm_s16le";
    case 2: return "pcm_s32le";
    case 3: return "pcm_f32le";
    case 4: return "pcm_f64le";
    default: return nullptr;
    }
}

}  // namespace

QString ToneSpec::tag() const
{
    return QStringLiteral("c%1-r%2-n%3-s%4-a%5-z%6")
        .arg(channels)
        .arg(sampleRate)
        .arg(frames)
        .arg(seed)
        .arg(std::lround(amplitude * 1000))
        .arg(std::lround(noise * 1000));
}

double toneValue(const ToneSpec& spec, int64_t frame, int channel)
{
    double frequency = 200.0 + 150.0 * channel;
    double phase = kTwoPi * frequency * double(frame) / double(std::max(1, spec.sampleRate));
    double value = spec.amplitude * std::sin(phase) + spec.noise * noiseValue(spec.seed, frame, channel);
    return std::clamp(value, -1.0, 1.0);
}

int bytesPerSampleOfFormat(int32_t sampleFormat)
{
    static constexpr int kSizes[] = {1, 2, 4, 4, 8};
    if (sampleFormat < 0 || sampleFormat > 4)
        return 0;
    return kSizes[sampleFormat];
}

QByteArray toneSamples(const ToneSpec& spec, int32_t sampleFormat)
{
    int bytes = bytesPerSampleOfFormat(sampleFormat);
    if (bytes == 0 || spec.channels < 1 || spec.frames < 0)
        return {};
    QByteArray out;
    out.reserve(qsizetype(spec.frames) * spec.channels * bytes);
    for (int64_t frame = 0; frame < spec.frames; ++frame) {
        for (int channel = 0; channel < spec.channels; ++channel) {
            double v = toneValue(spec, frame, channel);
            switch (sampleFormat) {
            case 0: appendLittleEndian(out, uint8_t(std::clamp(std::lround(v * 127.0) + 128, 0L, 255L))); break;
            case 1: appendLittleEndian(out, int16_t(std::lround(v * 32767.0))); break;
            case 2: appendLittleEndian(out, clampToInt32(v * 2147483647.0)); break;
            case 3: appendLittleEndian(out, float(v)); break;
            default: appendLittleEndian(out, v); break;
            }
        }
    }
    return out;
}

TestMedia::TestMedia(const QString& folder)
    : m_folder(folder)
{
    QDir().mkpath(m_folder);
}

TestMedia& TestMedia::shared()
{
    static TestMedia instance(TestEnvironment::current().root() + QStringLiteral("/media"));
    return instance;
}

QString TestMedia::pathFor(const QString& name) const
{
    return m_folder + QLatin1Char('/') + name;
}

template <class Make>
QString TestMedia::cached(const QString& name, Make make)
{
    std::lock_guard lock(m_mutex);
    QString path = pathFor(name);
    if (QFileInfo::exists(path))
        return path;
    if (!make(path)) {
        QFile::remove(path);
        log(QStringLiteral("TestMedia: could not make %1").arg(name));
        return {};
    }
    return path;
}

bool TestMedia::writeWav(const QString& path, int32_t sampleFormat, int channels, int sampleRate,
                         const QByteArray& interleaved)
{
    int bytes = bytesPerSampleOfFormat(sampleFormat);
    if (bytes == 0 || channels < 1 || sampleRate < 1)
        return false;
    bool isFloat = sampleFormat >= 3;
    uint16_t blockAlign = uint16_t(bytes * channels);
    uint32_t frames = uint32_t(interleaved.size() / blockAlign);
    uint32_t dataSize = frames * blockAlign;
    uint32_t fmtSize = isFloat ? 18 : 16;  // float carries cbSize and a fact chunk
    uint32_t factSize = isFloat ? 12 : 0;

    QByteArray out;
    appendTag(out, "RIFF");
    appendLittleEndian(out, uint32_t(4 + 8 + fmtSize + factSize + 8 + dataSize + (dataSize & 1)));
    appendTag(out, "WAVE");
    appendTag(out, "fmt ");
    appendLittleEndian(out, fmtSize);
    appendLittleEndian(out, uint16_t(isFloat ? 3 : 1));  // WAVE_FORMAT_IEEE_FLOAT : WAVE_FORMAT_PCM
    appendLittleEndian(out, uint16_t(channels));
    appendLittleEndian(out, uint32_t(sampleRate));
    appendLittleEndian(out, uint32_t(sampleRate) * blockAlign);
    appendLittleEndian(out, blockAlign);
    appendLittleEndian(out, uint16_t(bytes * 8));
    if (isFloat) {
        appendLittleEndian(out, uint16_t(0));
        appendTag(out, "fact");
        appendLittleEndian(out, uint32_t(4));
        appendLittleEndian(out, frames);
    }
    appendTag(out, "data");
    appendLittleEndian(out, dataSize);
    out.append(interleaved.constData(), dataSize);
    if (dataSize & 1)
        out.append('\0');
    return writeFile(path, out);
}

QString TestMedia::wav(int32_t sampleFormat, const ToneSpec& spec)
{
    QString name = QStringLiteral("tone-f%1-%2.wav").arg(sampleFormat).arg(spec.tag());
    return cached(name, [&](const QString& path) {
        return writeWav(path, sampleFormat, spec.channels, spec.sampleRate, toneSamples(spec, sampleFormat));
    });
}

QString TestMedia::encode(const ToneSpec& spec, const QString& name, const QStringList& outputArguments,
                          bool floatSource)
{
    std::lock_guard lock(m_mutex);
    QString source = wav(floatSource ? 3 : 1, spec);
    if (source.isEmpty())
        return {};
    return cached(name, [&](const QString& path) {
        QStringList arguments{QStringLiteral("-i"), source};
        arguments << outputArguments << path;
        return runFfmpeg(arguments);
    });
}

QString TestMedia::wav24(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("tone24-%1.wav").arg(spec.tag()),
                  {QStringLiteral("-c:a"), QStringLiteral("pcm_s24le")}, true);
}

QString TestMedia::mp3Cbr(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("cbr-%1.mp3").arg(spec.tag()),
                  {QStringLiteral("-c:a"), QStringLiteral("libmp3lame"), QStringLiteral("-b:a"), QStringLiteral("128k")});
}

QString TestMedia::mp3VbrXing(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("vbr-xing-%1.mp3").arg(spec.tag()),
                  {QStringLiteral("-c:a"), QStringLiteral("libmp3lame"), QStringLiteral("-q:a"), QStringLiteral("4")});
}

QString TestMedia::mp3VbrNoXing(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("vbr-noxing-%1.mp3").arg(spec.tag()),
                  {QStringLiteral("-c:a"), QStringLiteral("libmp3lame"), QStringLiteral("-q:a"), QStringLiteral("4"),
                   QStringLiteral("-write_xing"), QStringLiteral("0")});
}

QString TestMedia::mp3WithCoverArt(const ToneSpec& spec)
{
    std::lock_guard lock(m_mutex);
    QString cover = cached(QStringLiteral("cover.png"), [](const QString& path) {
        return runFfmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                          QStringLiteral("testsrc=size=64x64:rate=1"), QStringLiteral("-frames:v"), QStringLiteral("1"),
                          path});
    });
    QString source = wav(1, spec);
    if (cover.isEmpty() || source.isEmpty())
        return {};
    return cached(QStringLiteral("cover-%1.mp3").arg(spec.tag()), [&](const QString& path) {
        return runFfmpeg({QStringLiteral("-i"), source, QStringLiteral("-i"), cover, QStringLiteral("-map"),
                          QStringLiteral("0:a"), QStringLiteral("-map"), QStringLiteral("1:v"), QStringLiteral("-c:a"),
                          QStringLiteral("libmp3lame"), QStringLiteral("-b:a"), QStringLiteral("128k"),
                          QStringLiteral("-c:v"), QStringLiteral("copy"), QStringLiteral("-disposition:v"),
                          QStringLiteral("attached_pic"), QStringLiteral("-id3v2_version"), QStringLiteral("3"), path});
    });
}

QString TestMedia::m4a(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("aac-%1.m4a").arg(spec.tag()),
                  {QStringLiteral("-c:a"), QStringLiteral("aac"), QStringLiteral("-b:a"), QStringLiteral("128k")});
}

QString TestMedia::flac(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("tone-%1.flac").arg(spec.tag()), {QStringLiteral("-c:a"), QStringLiteral("flac")});
}

QString TestMedia::oggVorbis(const ToneSpec& spec)
{
    return encode(spec, QStringLiteral("vorbis-%1.ogg").arg(spec.tag()),
                  {QStringLiteral("-c:a"), QStringLiteral("libvorbis"), QStringLiteral("-q:a"), QStringLiteral("4")});
}

QString TestMedia::empty(const QString& name)
{
    return cached(name, [](const QString& path) { return writeFile(path, {}); });
}

QString TestMedia::truncated(const QString& source, qint64 bytes, const QString& name)
{
    return cached(name, [&](const QString& path) {
        QByteArray whole = readFile(source);
        if (whole.isEmpty())
            return false;
        return writeFile(path, whole.left(qsizetype(std::max<qint64>(0, bytes))));
    });
}

QString TestMedia::damaged(const QString& source, int interval, uint32_t seed, const QString& name)
{
    return cached(name, [&](const QString& path) {
        QByteArray bytes = readFile(source);
        if (bytes.isEmpty() || interval < 1)
            return false;
        for (qsizetype i = 0; i < bytes.size(); ++i) {
            uint64_t h = mix64((uint64_t(seed) << 32) ^ uint64_t(i));
            if (h % uint64_t(interval) == 0)
                bytes[i] = char(h >> 56);
        }
        return writeFile(path, bytes);
    });
}

QString TestMedia::garbage(qint64 bytes, const QString& name, uint32_t seed)
{
    return cached(name, [&](const QString& path) {
        QByteArray out;
        out.reserve(qsizetype(bytes));
        for (qint64 i = 0; i < bytes; ++i)
            out.append(char(mix64((uint64_t(seed) << 32) ^ uint64_t(i)) & 0xFF));
        return writeFile(path, out);
    });
}

QString TestMedia::m4aWithSampleEntry(const QByteArray& fourcc, const ToneSpec& spec)
{
    std::lock_guard lock(m_mutex);
    if (fourcc.size() != 4)
        return {};
    QString source = m4a(spec);
    if (source.isEmpty())
        return {};
    QString name = QStringLiteral("aac-%1-%2.m4a").arg(QString::fromLatin1(fourcc), spec.tag());
    return cached(name, [&](const QString& path) {
        QByteArray bytes = readFile(source);
        // The sample entry is the first "mp4a" after the sample description box.
        qsizetype stsd = bytes.indexOf("stsd");
        qsizetype entry = stsd < 0 ? -1 : bytes.indexOf("mp4a", stsd);
        if (entry < 0) {
            log(QStringLiteral("TestMedia: no mp4a sample entry in %1").arg(source));
            return false;
        }
        bytes.replace(entry, 4, fourcc);
        return writeFile(path, bytes);
    });
}

QString TestMedia::m4aEncrypted(const ToneSpec& spec)
{
    std::lock_guard lock(m_mutex);
    QString source = m4a(spec);
    if (source.isEmpty())
        return {};
    return cached(QStringLiteral("aac-cenc-%1.mp4").arg(spec.tag()), [&](const QString& path) {
        return runFfmpeg({QStringLiteral("-i"), source, QStringLiteral("-c"), QStringLiteral("copy"),
                          QStringLiteral("-encryption_scheme"), QStringLiteral("cenc-aes-ctr"),
                          QStringLiteral("-encryption_key"), QStringLiteral("00112233445566778899aabbccddeeff"),
                          QStringLiteral("-encryption_kid"), QStringLiteral("0123456789abcdef0123456789abcdef"), path});
    });
}

bool TestMedia::ffmpegAvailable()
{
    static const bool available = !QStandardPaths::findExecutable(QStringLiteral("ffmpeg")).isEmpty();
    return available;
}

namespace {

// Runs ffmpeg; its standard output is returned through `output` when given.
bool runFfmpegProcess(const QStringList& arguments, int timeoutMs, QByteArray* output)
{
    if (!TestMedia::ffmpegAvailable()) {
        log(QStringLiteral("TestMedia: the ffmpeg program is not installed"));
        return false;
    }
    QStringList all{QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                    QStringLiteral("-y")};
    all << arguments;
    ChildRun run = runChild(QStringLiteral("ffmpeg"), all, timeoutMs);
    if (!run.started) {
        log(QStringLiteral("TestMedia: cannot start ffmpeg: %1").arg(QString::fromUtf8(run.err)));
        return false;
    }
    if (!run.finished) {
        log(QStringLiteral("TestMedia: ffmpeg timed out: %1").arg(all.join(QLatin1Char(' '))));
        return false;
    }
    if (run.exitCode != 0) {
        log(QStringLiteral("TestMedia: ffmpeg failed (%1): %2")
                .arg(all.join(QLatin1Char(' ')), QString::fromUtf8(run.err).trimmed()));
        return false;
    }
    if (output)
        *output = std::move(run.out);
    return true;
}

}  // namespace

bool TestMedia::runFfmpeg(const QStringList& arguments, int timeoutMs)
{
    return runFfmpegProcess(arguments, timeoutMs, nullptr);
}

std::optional<QByteArray> TestMedia::decodeWithFfmpeg(const QString& path, int32_t sampleFormat)
{
    const char* format = rawFormatName(sampleFormat);
    const char* codec = rawCodecName(sampleFormat);
    if (!format || !codec)
        return std::nullopt;
    QByteArray pcm;
    QStringList arguments{QStringLiteral("-i"), path, QStringLiteral("-map"), QStringLiteral("0:a:0"),
                          QStringLiteral("-c:a"), QString::fromLatin1(codec), QStringLiteral("-f"),
                          QString::fromLatin1(format), QStringLiteral("pipe:1")};
    if (!runFfmpegProcess(arguments, 120000, &pcm))
        return std::nullopt;
    return pcm;
}

}  // namespace brindle::test
