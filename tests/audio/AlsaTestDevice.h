// The sound device that playback tests play into: ALSA's default PCM,
// defined by a configuration file of our own that ALSA_CONFIG_PATH names.
//
// - `AlsaTestDevice::shared()` writes the configuration and points
//   ALSA_CONFIG_PATH at it; call it before the first player is made in the
//   process (PortAudio reads the configuration when it is initialised).
// - ALSA reads its configuration again whenever a PCM is opened and the file
//   has changed, so each stream a test opens can be given its own setup: a
//   `file` PCM writing raw samples to a fresh file (not paced: it takes
//   buffers as fast as they are filled), a `null` PCM that drops them, a
//   file in a missing folder (the first write fails: the device dies while
//   playing), or a PCM that cannot be opened at all. The file is replaced by
//   renaming.
// - Main thread only. Header-only, so that several test programs share it.
#pragma once

#include "support/TestEnvironment.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

namespace brindle::test {

class AlsaTestDevice {
public:
    static AlsaTestDevice& shared()
    {
        static AlsaTestDevice device;
        return device;
    }

    // The default PCM writes raw samples to a fresh file named `name`; answers its path.
    QString playIntoFile(const QString& name)
    {
        const QString path = m_folder + QLatin1Char('/') + name + QStringLiteral(".raw");
        QFile::remove(path);
        define(QStringLiteral("type file; slave.pcm { type null }; file \"%1\"; format \"raw\"").arg(path));
        return path;
    }
    // The default PCM drops what it is given.
    void playIntoNothing() { define(QStringLiteral("type null")); }
    // The default PCM opens, but its first write fails.
    void failWhilePlaying()
    {
        define(QStringLiteral("type file; slave.pcm { type null }; file \"%1/missing/out.raw\"; format \"raw\"")
                   .arg(m_folder));
    }
    // The default PCM cannot be opened.
    void makeUnopenable() { define(QStringLiteral("type hw; card 99")); }

    // The bytes written to `path` so far.
    static QByteArray played(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    // `bytes` without its leading zero bytes (the device starts with a few
    // buffers of silence before the first one filled by the player).
    static QByteArray withoutLeadingSilence(const QByteArray& bytes, int frameBytes)
    {
        qsizetype first = 0;
        while (first < bytes.size() && bytes[first] == 0)
            ++first;
        first -= first % frameBytes;
        return bytes.mid(first);
    }

private:
    AlsaTestDevice()
        : m_folder(TestEnvironment::current().makeScratchDirectory(QStringLiteral("alsa")))
        , m_config(m_folder + QStringLiteral("/asound.conf"))
    {
        playIntoNothing();
        ::setenv("ALSA_CONFIG_PATH", m_config.toUtf8().constData(), 1);
    }

    // Each version is a file of its own that is kept, so that every version
    // has its own inode: ALSA tells a changed file by inode and modification
    // time, and a freed inode may be reused within the same second.
    void define(const QString& body)
    {
        const QString version = m_config + QStringLiteral(".%1").arg(++m_versions);
        QFile file(version);
        if (!file.open(QIODevice::WriteOnly))
            return;
        file.write(QStringLiteral("pcm.!default { %1 }\n").arg(body).toUtf8());
        file.close();
        const QString link = m_config + QStringLiteral(".next");
        QFile::remove(link);
        if (::link(version.toUtf8().constData(), link.toUtf8().constData()) == 0)
            ::rename(link.toUtf8().constData(), m_config.toUtf8().constData());
    }

    QString m_folder;
    QString m_config;
    int m_versions = 0;
};

}  // namespace brindle::test
