// Runs another program to its end for a test and collects what it printed.
//
// Why not QProcess: Qt 6.4 starts a child with clone(CLONE_VM | CLONE_VFORK)
// and runs its own set-up code in the child while the child still shares the
// test's memory. In a ThreadSanitizer build that set-up goes through the
// sanitizer's interceptors and rewrites the parent's sanitizer state, after
// which unrelated, correctly locked code of the test is reported as racing
// under mutexes "already destroyed". posix_spawn's child runs only the C
// library's own code until exec, so nothing of the parent is touched.
//
// Contract
// - `runChild` searches PATH for `program` (as execvp does), gives it an
//   empty standard input and the test's environment plus `extraEnvironment`
//   ("NAME=value" entries, overriding), and reads its standard output and
//   error as they come, so a large output never stalls the child.
// - It waits at most `timeoutMs`; a child still running then is killed.
// - Blocking, callable from any thread; no Qt event loop is needed. A test
//   whose child needs this process meanwhile (a second editor reading the
//   clipboard this one owns) passes `whileWaiting`, which runs every few
//   milliseconds until the child ends, e.g. to process the events.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>

namespace brindle::test {

struct ChildRun {
    bool started = false;   // the program could be started
    bool finished = false;  // it ended by itself (by exit or by a signal) within the time
    int exitCode = -1;      // its exit status; -1 unless it exited normally
    QByteArray out;
    QByteArray err;

    bool succeeded() const { return finished && exitCode == 0; }
};

ChildRun runChild(const QString& program, const QStringList& arguments, int timeoutMs,
                  const QStringList& extraEnvironment = {}, const std::function<void()>& whileWaiting = {});

}  // namespace brindle::test
