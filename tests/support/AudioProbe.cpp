#include "support/AudioProbe.h"

#include "foundation/Log.h"
#include "support/ChildProcess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace brindle::test {

std::optional<AudioProbe> AudioProbe::ofFile(const QString& path)
{
    const ChildRun run = runChild(QStringLiteral("ffprobe"),
                  {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-select_streams"),
                   QStringLiteral("a:0"), QStringLiteral("-show_entries"),
                   QStringLiteral("stream=codec_name,sample_rate,channels,bit_rate:stream_tags=title:format=duration,"
                                  "bit_rate:format_tags=title"),
                   QStringLiteral("-of"), QStringLiteral("json"), path},
                  60000);
    if (!run.succeeded()) {
        brindle::log(QStringLiteral("ffprobe failed on %1: %2").arg(path, QString::fromUtf8(run.err)));
        return std::nullopt;
    }
    const QJsonObject root = QJsonDocument::fromJson(run.out).object();
    const QJsonArray streams = root.value(QStringLiteral("streams")).toArray();
    if (streams.isEmpty()) {
        brindle::log(QStringLiteral("ffprobe found no audio stream in %1").arg(path));
        return std::nullopt;
    }
    const QJsonObject stream = streams.first().toObject();
    const QJsonObject format = root.value(QStringLiteral("format")).toObject();
    AudioProbe probe;
    probe.codecName = stream.value(QStringLiteral("codec_name")).toString();
    probe.sampleRate = stream.value(QStringLiteral("sample_rate")).toString().toLongLong();
    probe.channels = stream.value(QStringLiteral("channels")).toInt();
    probe.bitRate = stream.value(QStringLiteral("bit_rate")).toString().toLongLong();
    if (probe.bitRate == 0)
        probe.bitRate = format.value(QStringLiteral("bit_rate")).toString().toLongLong();
    probe.duration = format.value(QStringLiteral("duration")).toString().toDouble();
    probe.title = format.value(QStringLiteral("tags")).toObject().value(QStringLiteral("title")).toString();
    if (probe.title.isEmpty())
        probe.title = stream.value(QStringLiteral("tags")).toObject().value(QStringLiteral("title")).toString();
    return probe;
}

}  // namespace brindle::test
