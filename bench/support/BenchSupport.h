// Shared helpers of the benchmark programs: a private XDG home, generated
// media, timing of in-process work and of peer programs.
#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>

namespace brindle::bench {

// Points XDG_CONFIG_HOME, XDG_DATA_HOME and XDG_CACHE_HOME at a fresh folder
// for the life of the object, so a benchmark never touches the person's own
// settings or caches.
class PrivateHome {
public:
    PrivateHome();
    QString path() const { return m_dir.path(); }
    // A folder for generated media that survives between runs
    // (<build dir>/bench-media), so long fixtures are made once.
    static QString mediaFolder();

private:
    QTemporaryDir m_dir;
};

// Seconds taken by `work`.
double timeSeconds(const std::function<void()>& work);
// Runs a program and answers its wall time in seconds, or a negative value if
// it could not be run or failed.
double timeProgram(const QString& program, const QStringList& arguments);
// Makes `path` with the ffmpeg program unless it exists: `seconds` of a
// stereo tone with a little noise at `rate`, encoded with `codecArguments`.
bool makeToneFile(const QString& path, int seconds, int rate, const QStringList& codecArguments);
// Prints one result line: a label, a figure with its unit.
void report(const QString& label, double value, const char* unit);

}  // namespace brindle::bench
