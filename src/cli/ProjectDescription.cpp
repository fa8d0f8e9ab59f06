#include "cli/ProjectDescription.h"

#include "model/VTProject.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <cmath>

namespace brindle::cli {

namespace {

// The largest integer a JSON number (a double) holds exactly.
constexpr double kMaxExactInteger = 9007199254740992.0;

struct Reader {
    QString* error;

    bool fail(const QString& where, const QString& what)
    {
        *error = QStringLiteral("%1: %2").arg(where, what);
        return false;
    }

    bool readTime(const QJsonValue& value, const QString& where, std::optional<int64_t>* out)
    {
        if (!value.isDouble())
            return fail(where, QStringLiteral("must be a number of milliseconds"));
        const double number = value.toDouble();
        if (std::trunc(number) != number || std::fabs(number) > kMaxExactInteger)
            return fail(where, QStringLiteral("must be a whole number of milliseconds"));
        *out = int64_t(number);
        return true;
    }

    bool readClip(const QJsonValue& value, const QString& where, const QDir& base, ClipDescription* clip)
    {
        if (!value.isObject())
            return fail(where, QStringLiteral("a clip must be an object"));
        const QJsonObject object = value.toObject();
        static const QSet<QString> known = {
            QStringLiteral("file"),   QStringLiteral("start"),   QStringLiteral("offset"),
            QStringLiteral("duration"), QStringLiteral("volume"), QStringLiteral("fadeIn"),
            QStringLiteral("fadeOut"), QStringLiteral("fadeInOn"), QStringLiteral("fadeOutOn")};
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (!known.contains(it.key()))
                return fail(where, QStringLiteral("unknown key \"%1\"").arg(it.key()));
        }
        const QJsonValue file = object.value(QStringLiteral("file"));
        if (!file.isString() || file.toString().isEmpty())
            return fail(where + QStringLiteral(".file"), QStringLiteral("must be a file name"));
        clip->file = QFileInfo(base, file.toString()).absoluteFilePath();

        const std::pair<const char*, std::optional<int64_t>*> times[] = {
            {"start", &clip->start}, {"offset", &clip->offset}, {"duration", &clip->duration},
            {"fadeIn", &clip->fadeIn}, {"fadeOut", &clip->fadeOut}};
        for (const auto& [key, field] : times) {
            const QString name = QString::fromLatin1(key);
            if (object.contains(name) && !readTime(object.value(name), where + u'.' + name, field))
                return false;
        }
        if (object.contains(QStringLiteral("volume"))) {
            const QJsonValue volume = object.value(QStringLiteral("volume"));
            if (!volume.isDouble())
                return fail(where + QStringLiteral(".volume"), QStringLiteral("must be a number"));
            clip->volume = volume.toDouble();
        }
        const std::pair<const char*, std::optional<bool>*> switches[] = {{"fadeInOn", &clip->fadeInOn},
                                                                         {"fadeOutOn", &clip->fadeOutOn}};
        for (const auto& [key, field] : switches) {
            const QString name = QString::fromLatin1(key);
            if (!object.contains(name))
                continue;
            if (!object.value(name).isBool())
                return fail(where + u'.' + name, QStringLiteral("must be true or false"));
            *field = object.value(name).toBool();
        }
        return true;
    }
};

}  // namespace

std::optional<ProjectDescription> readProjectDescription(const QString& path, QString* error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = QStringLiteral("%1: cannot read: %2").arg(path, file.errorString());
        return std::nullopt;
    }
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = QStringLiteral("%1: bad JSON at offset %2: %3").arg(path).arg(parseError.offset).arg(parseError.errorString());
        return std::nullopt;
    }
    Reader reader{error};
    if (!document.isObject()) {
        reader.fail(path, QStringLiteral("the description must be a JSON object"));
        return std::nullopt;
    }
    const QJsonObject root = document.object();
    for (auto it = root.begin(); it != root.end(); ++it) {
        if (it.key() != QStringLiteral("tracks") && it.key() != QStringLiteral("position")) {
            reader.fail(path, QStringLiteral("unknown key \"%1\"").arg(it.key()));
            return std::nullopt;
        }
    }
    ProjectDescription description;
    if (root.contains(QStringLiteral("position"))
        && !reader.readTime(root.value(QStringLiteral("position")), QStringLiteral("position"), &description.position))
        return std::nullopt;
    const QJsonValue tracks = root.value(QStringLiteral("tracks"));
    if (!tracks.isArray()) {
        reader.fail(QStringLiteral("tracks"), QStringLiteral("must be an array of tracks"));
        return std::nullopt;
    }
    const QJsonArray trackArray = tracks.toArray();
    if (trackArray.size() > VTProject::supportMaxNumberOfTracks()) {
        reader.fail(QStringLiteral("tracks"), QStringLiteral("a project holds at most %1 tracks")
                                                  .arg(VTProject::supportMaxNumberOfTracks()));
        return std::nullopt;
    }
    const QDir base = QFileInfo(path).absoluteDir();
    for (qsizetype t = 0; t < trackArray.size(); ++t) {
        const QString trackWhere = QStringLiteral("tracks[%1]").arg(t);
        if (!trackArray[t].isArray()) {
            reader.fail(trackWhere, QStringLiteral("a track must be an array of clips"));
            return std::nullopt;
        }
        const QJsonArray clipArray = trackArray[t].toArray();
        std::vector<ClipDescription> clips(size_t(clipArray.size()));
        for (qsizetype c = 0; c < clipArray.size(); ++c) {
            if (!reader.readClip(clipArray[c], QStringLiteral("%1[%2]").arg(trackWhere).arg(c), base, &clips[size_t(c)]))
                return std::nullopt;
        }
        description.tracks.push_back(std::move(clips));
    }
    return description;
}

}  // namespace brindle::cli
