// The subcommands, each in a source of its own: options, help, what it does.
#pragma once

#include "CommandLine.h"

namespace Velantrix::Tool {

/// Each adds itself to @p commandLine, which keeps everything that it needs.
void addAddCommand(CommandLine& commandLine);
void addCacheCommand(CommandLine& commandLine);
void addCRLCommand(CommandLine& commandLine);
void addFindCommand(CommandLine& commandLine);
void addOCSPCommand(CommandLine& commandLine);
void addRefreshCommand(CommandLine& commandLine);
void addShowCommand(CommandLine& commandLine);
void addSimpleCommand(CommandLine& commandLine);
void addVerifyCommand(CommandLine& commandLine);

}  // namespace Velantrix::Tool
