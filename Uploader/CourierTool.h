// The LogCourier2 program as a function: parses the command line, runs one
// pass with the libcurl transport and answers the exit status (0 when the
// pass ran, whatever the server said; 2 on a usage error).
#ifndef LUMETRY_UPLOADER_COURIERTOOL_H_
#define LUMETRY_UPLOADER_COURIERTOOL_H_

namespace Courier {

int ToolMain(int argc, char* argv[]);

}  // namespace Courier

#endif  // LUMETRY_UPLOADER_COURIERTOOL_H_
