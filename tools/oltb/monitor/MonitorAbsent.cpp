// oltb built without cpp-httplib (libcpp-httplib-dev) or without the report page: no monitor.
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"

namespace oltb::cli {

int runMonitor(const MonitorOptions&) {
    throw UsageError(
        "this oltb was built without the monitor: its web server needs libcpp-httplib-dev and its page "
        "libjs-dygraphs (scripts/setup.sh demo installs both)");
}

}  // namespace oltb::cli
