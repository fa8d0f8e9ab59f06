// A temporary home for one test process: XDG_CONFIG_HOME, XDG_DATA_HOME and
// XDG_CACHE_HOME point into a fresh folder that is removed at exit.
#pragma once

#include <QString>
#include <QTemporaryDir>

namespace brindle::test {

class TestEnvironment {
public:
    // When set, the XDG folders are put below this folder instead of a new one.
    static constexpr const char* kSharedHomeVariable = "BRINDLE_TEST_SHARED_HOME";

    TestEnvironment();
    ~TestEnvironment();

    // The process-wide instance (set while a TestEnvironment exists).
    static TestEnvironment& current();
    // The root of the temporary folder.
    QString root() const { return m_dir.path(); }
    // A fresh empty folder below the root, for one test's own files.
    QString makeScratchDirectory(const QString& name) const;

private:
    QTemporaryDir m_dir;
};

}  // namespace brindle::test
