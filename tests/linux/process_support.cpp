#include "process_support.h"

#include <sys/wait.h>

#include <cstdlib>

namespace tovrel::linuxbackend::test {

int runCommand(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tovrel::linuxbackend::test
