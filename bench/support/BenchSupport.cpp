#include "support/BenchSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>

#include <cstdio>
#include <cstdlib>

namespace brindle::bench {

PrivateHome::PrivateHome()
    : m_dir(QDir::tempPath() + QStringLiteral("/brindle-bench-XXXXXX"))
{
    for (const char* variable : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"}) {
        const QString folder = m_dir.path() + QLatin1Char('/') + QString::fromLatin1(variable).toLower();
        QDir().mkpath(folder);
        ::setenv(variable, folder.toUtf8().constData(), 1);
    }
}

QString PrivateHome::mediaFolder()
{
    const QString folder = QCoreApplication::applicationDirPath() + QStringLiteral("/bench-media");
    QDir().mkpath(folder);
    return folder;
}

double timeSeconds(const std::function<void()>& work)
{
    QElapsedTimer timer;
    timer.start();
    work();
    return double(timer.nsecsElapsed()) / 1e9;
}

double timeProgram(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    QElapsedTimer timer;
    timer.start();
    process.start(program, arguments);
    if (!process.waitForStarted(10000))
        return -1.0;
    process.waitForFinished(-1);
    const double seconds = double(timer.nsecsElapsed()) / 1e9;
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return -1.0;
    return seconds;
}

bool makeToneFile(const QString& path, int seconds, int rate, const QStringList& codecArguments)
{
    if (QFileInfo::exists(path))
        return true;
    const QString source = QStringLiteral("sine=frequency=440:sample_rate=%1:duration=%2").arg(rate).arg(seconds);
    const QString noise = QStringLiteral("anoisesrc=color=pink:amplitude=0.1:sample_rate=%1:duration=%2").arg(rate).arg(seconds);
    QStringList arguments{QStringLiteral("-nostdin"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                          QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), source,
                          QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), noise,
                          QStringLiteral("-filter_complex"),
                          QStringLiteral("[0:a][1:a]amix=inputs=2:normalize=0,aformat=channel_layouts=stereo")};
    const QFileInfo target(path);
    const QString partial = target.absolutePath() + QStringLiteral("/partial-") + target.fileName();
    arguments << codecArguments << QStringLiteral("-y") << partial;
    std::fprintf(stderr, "making %s ...\n", qPrintable(path));
    if (timeProgram(QStringLiteral("ffmpeg"), arguments) < 0)
        return false;
    return QFile::rename(partial, path);
}

void report(const QString& label, double value, const char* unit)
{
    std::printf("%-60s %12.3f %s\n", qPrintable(label), value, unit);
    std::fflush(stdout);
}

}  // namespace brindle::bench
