// The commands of brindle-cli. Each returns the process exit status.
#pragma once

#include <QStringList>

namespace brindle::cli {

// import FILE...: probe and decode each file into the PCM cache (files in
// parallel), register them, and print one line per imported file.
int importCommand(const QStringList& files);
// pcm FILE [--start N] [--count M]: write a registered file's interleaved PCM
// to standard output.
int pcmCommand(const QStringList& arguments);
// providers: list the registry.
int providersCommand();

// The usage text.
void printUsage();

}  // namespace brindle::cli
