#include "support/ChildProcess.h"

#include <QDeadlineTimer>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace brindle::test {

namespace {

// Both ends close on exec; the child's end is dup2'ed onto 1 or 2, which
// clears the flag for that descriptor only.
bool makePipe(int ends[2])
{
    return ::pipe2(ends, O_CLOEXEC) == 0;
}

// The test's environment with `extra` laid over it, as execve wants it.
std::vector<std::string> environmentWith(const QStringList& extra)
{
    std::map<std::string, std::string> byName;
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string text(*entry);
        byName[text.substr(0, text.find('='))] = text;
    }
    for (const QString& entry : extra) {
        const std::string text = entry.toStdString();
        byName[text.substr(0, text.find('='))] = text;
    }
    std::vector<std::string> result;
    for (auto& [name, text] : byName)
        result.push_back(std::move(text));
    return result;
}

// Reads what is ready on `fd` into `into`; false once the writer closed it.
bool drain(int fd, QByteArray& into)
{
    char buffer[65536];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got > 0) {
        into.append(buffer, qsizetype(got));
        return true;
    }
    return got < 0 && (errno == EINTR || errno == EAGAIN);
}

}  // namespace

ChildRun runChild(const QString& program, const QStringList& arguments, int timeoutMs,
                  const QStringList& extraEnvironment, const std::function<void()>& whileWaiting)
{
    ChildRun run;
    int out[2];
    int err[2];
    if (!makePipe(out))
        return run;
    if (!makePipe(err)) {
        ::close(out[0]);
        ::close(out[1]);
        return run;
    }

    std::vector<std::string> argumentText{program.toStdString()};
    for (const QString& argument : arguments)
        argumentText.push_back(argument.toStdString());
    std::vector<char*> argv;
    for (std::string& text : argumentText)
        argv.push_back(text.data());
    argv.push_back(nullptr);
    std::vector<std::string> environmentText = environmentWith(extraEnvironment);
    std::vector<char*> envp;
    for (std::string& text : environmentText)
        envp.push_back(text.data());
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    pid_t pid = -1;
    const int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    if (spawned != 0) {
        ::close(out[0]);
        ::close(err[0]);
        run.err = QByteArray("cannot start ") + argv[0] + ": " + std::strerror(spawned);
        return run;
    }
    run.started = true;

    const QDeadlineTimer deadline(timeoutMs);
    bool outOpen = true;
    bool errOpen = true;
    while ((outOpen || errOpen) && !deadline.hasExpired()) {
        pollfd fds[2] = {{outOpen ? out[0] : -1, POLLIN, 0}, {errOpen ? err[0] : -1, POLLIN, 0}};
        const int slice = whileWaiting ? 10 : 1000;
        const int ready = ::poll(fds, 2, int(std::min<qint64>(deadline.remainingTime(), slice)));
        if (ready < 0 && errno != EINTR)
            break;
        if (whileWaiting)
            whileWaiting();
        if (outOpen && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)))
            outOpen = drain(out[0], run.out);
        if (errOpen && (fds[1].revents & (POLLIN | POLLHUP | POLLERR)))
            errOpen = drain(err[0], run.err);
    }
    ::close(out[0]);
    ::close(err[0]);

    int status = 0;
    pid_t ended = 0;
    while ((ended = ::waitpid(pid, &status, deadline.hasExpired() ? WNOHANG : 0)) < 0 && errno == EINTR) {
    }
    if (ended == 0) {
        ::kill(pid, SIGKILL);
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        return run;
    }
    run.finished = ended == pid;
    if (run.finished && WIFEXITED(status))
        run.exitCode = WEXITSTATUS(status);
    return run;
}

}  // namespace brindle::test
