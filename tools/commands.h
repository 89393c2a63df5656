// commands.h - jpipe's commands. Each returns the exit code, or throws Failure.
#ifndef JPIPE_COMMANDS_H
#define JPIPE_COMMANDS_H

#include "options.h"

namespace jpipe {

int Pull(const Options& options);
int Push(const Options& options);
int Signal(const Options& options);
int List(const Options& options);
int Drain(const Options& options);
int Remove(const Options& options);
int Decode(const Options& options);
int Export(const Options& options);
int Import(const Options& options);
int MakeCertificate(const Options& options);

}  // namespace jpipe

#endif
