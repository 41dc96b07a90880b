// The subcommands of the talvoro tool, one source file each. Each takes the arguments after its
// name and returns the exit status, or throws ToolError.
#ifndef TALVORO_TOOL_COMMANDS_H
#define TALVORO_TOOL_COMMANDS_H

#include "Cli.h"

namespace talvoro_tool {

int listCommand(Args& args);
int infoCommand(Args& args);
int getCommand(Args& args);
int setCommand(Args& args);
int streamCommand(Args& args);
int cloudCommand(Args& args);
int recordCommand(Args& args);
int replayCommand(Args& args);

}  // namespace talvoro_tool

#endif
