#include "media/VTDataProvider.h"

#include "LogCapture.h"
#include "foundation/Dispatch.h"
#include "media/VTAlertPresenter.h"
#include "support/TestMedia.h"

#include <QUrl>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

using namespace brindle::test;

namespace {

const QString kDrmMessage = QStringLiteral("You can not add DRM protected file.");

QString drmInformative(const QString& path)
{
    return QStringLiteral("DRM protected information has been detected in file: %1").arg(path);
}

// Records alerts; optionally insists on the main thread like a window toolkit.
class RecordingPresenter final : public VTAlertPresenter {
public:
    explicit RecordingPresenter(bool anyThread) : m_anyThread(anyThread) {}
    void presentAlert(const QString& messageText, const QString& informativeText) override
    {
        std::lock_guard lock(m_mutex);
        m_alerts.append(messageText + QLatin1Char('|') + informativeText);
        m_onMainThread = brindle::isMainThread();
    }
    bool canPresentOnAnyThread() const override { return m_anyThread; }
    QStringList alerts()
    {
        std::lock_guard lock(m_mutex);
        return m_alerts;
    }
    bool lastOnMainThread()
    {
        std::lock_guard lock(m_mutex);
        return m_onMainThread;
    }

private:
    const bool m_anyThread;
    std::mutex m_mutex;
    QStringList m_alerts;
    bool m_onMainThread = false;
};

// Installs a presenter for one test.
struct PresenterScope {
    explicit PresenterScope(std::shared_ptr<VTAlertPresenter> presenter)
        : previous(VTAlertPresenter::installAlertPresenter(std::move(presenter)))
    {
    }
    ~PresenterScope() { VTAlertPresenter::installAlertPresenter(previous); }
    std::shared_ptr<VTAlertPresenter> previous;
};

std::shared_ptr<VTDataProvider> probe(const QString& path)
{
    return VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
}

}  // namespace

TEST(VTDataProviderProbeTest, probingSetsTheFieldsButWritesNoCacheYet)
{
    ToneSpec spec;
    spec.channels = 3;
    spec.sampleRate = 22050;
    spec.frames = 22050 * 2;
    const QString path = TestMedia::shared().wav(3, spec);
    LogCapture log;
    auto provider = probe(path);
    ASSERT_TRUE(provider);
    EXPECT_EQ(provider->url(), QUrl::fromLocalFile(path));
    EXPECT_EQ(provider->identifier(), path);
    EXPECT_EQ(provider->duration(), 2000);
    EXPECT_EQ(provider->sampleFormat(), 3);
    EXPECT_EQ(provider->samplerate(), 22050);
    EXPECT_EQ(provider->numberOfChannel(), 3);
    EXPECT_EQ(provider->bytesPerSample(), 12u);
    EXPECT_TRUE(provider->cachePathFile().isEmpty());
    EXPECT_FALSE(provider->dataBuffer());
    EXPECT_EQ(provider->cacheFileExtension(), QStringLiteral("cache"));

    EXPECT_EQ(provider->numberOfSamples(), 0u);
    EXPECT_TRUE(log.contains(QStringLiteral("Error data provider. May be can not parser end.")));
    char byte = 0x11;
    EXPECT_EQ(provider->readSampleOfCount(1, &byte, 0), 0u);
    EXPECT_EQ(byte, 0x11);
}

TEST(VTDataProviderProbeTest, plannarDecoderOutputIsReportedAsItsPackedFormat)
{
    auto provider = probe(TestMedia::shared().mp3Cbr());
    ASSERT_TRUE(provider);
    EXPECT_EQ(provider->sampleFormat(), 3);  // mp3 decodes to planar float
    EXPECT_EQ(provider->bytesPerSample(), 8u);
    EXPECT_NEAR(double(provider->duration()), 1000.0, 60.0);
}

TEST(VTDataProviderProbeTest, anEmptyUrlLogsAndGivesAnEmptyProvider)
{
    LogCapture log;
    auto provider = VTDataProvider::init();
    ASSERT_TRUE(provider);
    EXPECT_TRUE(log.contains(QStringLiteral("data provider url can't empty.")));
    EXPECT_TRUE(provider->identifier().isEmpty());
    EXPECT_EQ(provider->bytesPerSample(), 0u);
}

TEST(VTDataProviderProbeTest, unreadableFilesGiveNothingAndNoAlert)
{
    auto presenter = std::make_shared<RecordingPresenter>(true);
    PresenterScope scope(presenter);
    TestMedia& media = TestMedia::shared();
    EXPECT_FALSE(probe(media.garbage(50000)));
    EXPECT_FALSE(probe(media.empty()));
    EXPECT_FALSE(probe(media.folder() + QStringLiteral("/no such file.mp3")));
    EXPECT_FALSE(probe(media.truncated(media.m4a(), 300, QStringLiteral("cut.m4a"))));
    EXPECT_TRUE(presenter->alerts().isEmpty());
}

TEST(VTDataProviderProbeTest, protectedFilesAreRefusedWithTheAlert)
{
    auto presenter = std::make_shared<RecordingPresenter>(true);
    PresenterScope scope(presenter);
    const QString tagged = TestMedia::shared().m4aDrmTagged();
    const QString encrypted = TestMedia::shared().m4aEncrypted();
    ASSERT_FALSE(tagged.isEmpty());
    ASSERT_FALSE(encrypted.isEmpty());
    EXPECT_FALSE(probe(tagged));
    EXPECT_FALSE(probe(encrypted));
    EXPECT_EQ(presenter->alerts(), (QStringList{kDrmMessage + QLatin1Char('|') + drmInformative(tagged),
                                                kDrmMessage + QLatin1Char('|') + drmInformative(encrypted)}));
}

TEST(VTDataProviderProbeTest, theDefaultPresenterLogsFromAnyThreadWithoutTheMainQueue)
{
    const QString tagged = TestMedia::shared().m4aDrmTagged();
    LogCapture log;
    bool refused = false;
    std::thread worker([&] { refused = !probe(tagged); });
    worker.join();  // the main thread runs no event loop meanwhile
    EXPECT_TRUE(refused);
    EXPECT_TRUE(log.contains(kDrmMessage + QLatin1Char(' ') + drmInformative(tagged)));
}

TEST(VTDataProviderProbeTest, aMainThreadPresenterIsRunOnTheMainQueueWhileTheProbeWaits)
{
    auto presenter = std::make_shared<RecordingPresenter>(false);
    PresenterScope scope(presenter);
    const QString tagged = TestMedia::shared().m4aDrmTagged();
    std::atomic<bool> done{false};
    std::atomic<bool> refused{false};
    std::thread worker([&] {
        refused = !probe(tagged);
        done = true;
    });
    EXPECT_TRUE(brindle::runMainQueueUntil([&] { return done.load(); }, 30000));
    worker.join();
    EXPECT_TRUE(refused);
    ASSERT_EQ(presenter->alerts().size(), 1);
    EXPECT_TRUE(presenter->lastOnMainThread());
}
