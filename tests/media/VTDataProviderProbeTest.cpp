#include "media/VTDataProvider.h"

#include "LogCapture.h"
#include "MediaFixtures.h"
#include "foundation/Dispatch.h"
#include "media/VTAlertPresenter.h"

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

// Installs, for one scope, a presenter that records alerts (and any shown
// off the main thread); it may insist on the main thread like a window toolkit.
class RecordedAlerts {
public:
    explicit RecordedAlerts(bool anyThread)
        : m_presenter(std::make_shared<Presenter>(anyThread)), m_previous(VTAlertPresenter::installAlertPresenter(m_presenter))
    {
    }
    ~RecordedAlerts() { VTAlertPresenter::installAlertPresenter(m_previous); }
    QStringList alerts() const
    {
        std::lock_guard lock(m_presenter->mutex);
        return m_presenter->alerts;
    }

private:
    struct Presenter final : VTAlertPresenter {
        explicit Presenter(bool anyThread) : anyThread(anyThread) {}
        void presentAlert(const QString& messageText, const QString& informativeText) override
        {
            std::lock_guard lock(mutex);
            alerts.append(messageText + u'|' + informativeText + (brindle::isMainThread() ? "" : "|off main"));
        }
        bool canPresentOnAnyThread() const override { return anyThread; }
        const bool anyThread;
        std::mutex mutex;
        QStringList alerts;
    };
    std::shared_ptr<Presenter> m_presenter;
    std::shared_ptr<VTAlertPresenter> m_previous;
};

std::shared_ptr<VTDataProvider> probe(const QString& path)
{
    return VTDataProvider::initWithURL(QUrl::fromLocalFile(path));
}

}  // namespace

// Probing sets the fields (a planar decoder output as its packed format)
// but writes no cache yet, so nothing can be read.
TEST(VTDataProviderProbeTest, probingSetsTheFieldsButWritesNoCacheYet)
{
    struct Case {
        QString path;
        int32_t format;
        int64_t rate;
        int64_t channels;
        int64_t duration;  // ms
        int64_t durationTolerance;
    };
    for (const Case& c : {Case{TestMedia::shared().wav(3, ToneSpec{3, 22050, 22050 * 2}), 3, 22050, 3, 2000, 0},
                          Case{TestMedia::shared().mp3Cbr(), 3, 44100, 2, 1000, 60}}) {
        SCOPED_TRACE(c.path.toStdString());
        LogCapture log;
        auto provider = probe(c.path);
        ASSERT_TRUE(provider);
        EXPECT_EQ(provider->url(), QUrl::fromLocalFile(c.path));
        EXPECT_EQ(provider->identifier(), c.path);
        EXPECT_NEAR(double(provider->duration()), double(c.duration), double(c.durationTolerance));
        EXPECT_EQ(provider->sampleFormat(), c.format);
        EXPECT_EQ(provider->samplerate(), c.rate);
        EXPECT_EQ(provider->numberOfChannel(), c.channels);
        EXPECT_EQ(provider->bytesPerSample(), uint64_t(4 * c.channels));
        EXPECT_TRUE(provider->cachePathFile().isEmpty());
        EXPECT_FALSE(provider->dataBuffer());
        EXPECT_EQ(provider->numberOfSamples(), 0u);
        EXPECT_TRUE(log.contains(QStringLiteral("Error data provider. May be can not parser end.")));
        char byte = 0x11;
        EXPECT_EQ(provider->readSampleOfCount(1, &byte, 0), 0u);
        EXPECT_EQ(byte, 0x11);
    }
    LogCapture log;
    auto empty = VTDataProvider::init();
    ASSERT_TRUE(empty);
    EXPECT_TRUE(log.contains(QStringLiteral("data provider url can't empty.")));
    EXPECT_TRUE(empty->identifier().isEmpty());
    EXPECT_EQ(empty->bytesPerSample(), 0u);
}

// Unreadable files give nothing and no alert; protected ones are refused
// with the alert.
TEST(VTDataProviderProbeTest, protectedFilesAreRefusedWithTheAlertAndUnreadableOnesWithout)
{
    RecordedAlerts presenter(true);
    TestMedia& media = TestMedia::shared();
    for (const QString& path : {media.garbage(50000), media.empty(), media.folder() + QStringLiteral("/no such file.mp3"),
                                media.truncated(media.m4a(), 300, QStringLiteral("cut.m4a"))})
        EXPECT_FALSE(probe(path)) << path.toStdString();
    EXPECT_TRUE(presenter.alerts().isEmpty());

    const QString tagged = media.m4aDrmTagged();
    const QString encrypted = media.m4aEncrypted();
    ASSERT_FALSE(tagged.isEmpty() || encrypted.isEmpty());
    EXPECT_FALSE(probe(tagged));
    EXPECT_FALSE(probe(encrypted));
    EXPECT_EQ(presenter.alerts(), (QStringList{kDrmMessage + u'|' + drmInformative(tagged),
                                                kDrmMessage + u'|' + drmInformative(encrypted)}));
}

// A probe on a worker thread: the default presenter logs without the main
// queue (which runs no event loop meanwhile); a presenter that needs the
// main thread is run on the main queue while the probe waits.
TEST(VTDataProviderProbeTest, alertsOfWorkerThreadsReachThePresenterOnTheThreadItNeeds)
{
    const QString tagged = TestMedia::shared().m4aDrmTagged();
    {
        LogCapture log;
        bool refused = false;
        std::thread worker([&] { refused = !probe(tagged); });
        worker.join();
        EXPECT_TRUE(refused);
        EXPECT_TRUE(log.contains(kDrmMessage + QLatin1Char(' ') + drmInformative(tagged)));
    }
    RecordedAlerts presenter(false);
    std::atomic<bool> done{false};
    std::atomic<bool> refused{false};
    std::thread worker([&] {
        refused = !probe(tagged);
        done = true;
    });
    EXPECT_TRUE(brindle::runMainQueueUntil([&] { return done.load(); }, 30000));
    worker.join();
    EXPECT_TRUE(refused);
    EXPECT_EQ(presenter.alerts(), QStringList{kDrmMessage + u'|' + drmInformative(tagged)});
}
