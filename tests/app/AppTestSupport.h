// What the editor's tests share: a running editor in the test process (the
// controller with its window shown, as `brindle` starts it), and answering
// its dialogs through the dialog objects themselves.
#pragma once

#include "app/AppDelegate.h"
#include "gui/WaitFor.h"
#include "app/MainWindow.h"
#include "model/VTPasteboard.h"
#include "model/VTProject.h"
#include "timeline/VTTimelineView.h"
#include "waveform/VTProjectAdapter.h"

#include <QAbstractButton>
#include <QApplication>
#include <QFileDialog>
#include <QMessageBox>
#include <QPointer>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace brindle::test {

// The visible top-level widget of type T named `objectName`, or null.
template <class T>
T* shownDialog(const QString& objectName)
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* typed = qobject_cast<T*>(widget);
        if (typed && typed->isVisible() && typed->objectName() == objectName)
            return typed;
    }
    return nullptr;
}

// The button of a message box that reads `text`, or null.
inline QAbstractButton* buttonWithText(QMessageBox* box, const QString& text)
{
    for (QAbstractButton* button : box->buttons()) {
        if (button->text() == text)
            return button;
    }
    return nullptr;
}

// Answers the dialog named `objectName` as soon as it shows, also when it
// runs its own event loop (an application-modal alert): `answer` gets the
// dialog. Polls the top-level widgets on a timer, which fires inside nested
// event loops too.
class DialogAnswer {
public:
    using Answer = std::function<void(QWidget* dialog)>;
    DialogAnswer(const QString& objectName, Answer answer) : m_answer(std::move(answer))
    {
        QObject::connect(&m_timer, &QTimer::timeout, [this, objectName] {
            for (QWidget* widget : QApplication::topLevelWidgets()) {
                if (widget->isVisible() && widget->objectName() == objectName) {
                    m_timer.stop();
                    m_seen = true;
                    m_answer(widget);
                    return;
                }
            }
        });
        m_timer.start(5);
    }
    bool answered() const { return m_seen; }

private:
    QTimer m_timer;
    Answer m_answer;
    bool m_seen = false;
};

// Clicks the button reading `text` of the message box named `objectName` once it shows.
inline std::unique_ptr<DialogAnswer> clickWhenShown(const QString& objectName, const QString& text,
                                                    QString* shownText = nullptr)
{
    return std::make_unique<DialogAnswer>(objectName, [text, shownText](QWidget* widget) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        ASSERT_NE(box, nullptr);
        if (shownText)
            *shownText = box->text();
        QAbstractButton* button = buttonWithText(box, text);
        ASSERT_NE(button, nullptr) << text.toStdString();
        button->click();
    });
}

// Chooses `path` in the file dialog named `objectName` once it shows; an
// empty path cancels it.
inline std::unique_ptr<DialogAnswer> chooseFileWhenShown(const QString& objectName, const QString& path)
{
    return std::make_unique<DialogAnswer>(objectName, [path](QWidget* widget) {
        auto* dialog = qobject_cast<QFileDialog*>(widget);
        ASSERT_NE(dialog, nullptr);
        if (path.isEmpty()) {
            dialog->reject();
            return;
        }
        dialog->selectFile(path);
        static_cast<QDialog*>(dialog)->accept();
    });
}

// A running editor: the controller after start-up, its window shown.
class EditorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_app = std::make_unique<AppDelegate>();
        m_app->applicationDidFinishLaunching();
        m_app->window()->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(m_app->window()));
        // Shortcuts reach only the active window.
        m_app->window()->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(m_app->window()));
    }
    void TearDown() override
    {
        // Let queued work of this test run before the controller goes.
        QTest::qWait(0);
        m_app.reset();
    }

    AppDelegate& app() { return *m_app; }
    MainWindow& window() { return *m_app->window(); }
    VTTimelineView& timeline() { return *m_app->timelineView(); }
    std::shared_ptr<VTProject> project() { return m_app->project(); }
    // Installs `project` as if it had been opened.
    void install(std::shared_ptr<VTProject> project)
    {
        m_app->updateWithProjectAdapter(VTProjectAdapter::initWithProject(std::move(project)));
    }
    // Triggers a menu item as its shortcut or the menu would (nothing when disabled).
    static void trigger(QAction* action)
    {
        action->activate(QAction::Trigger);
    }

    std::unique_ptr<AppDelegate> m_app;
};

}  // namespace brindle::test
