// The monitor's web server (cpp-httplib): everything it serves only reads what the monitor knows.
//   /            the live page (live.html): the machine's state, the trend of the main figures over the jobs and the
//                last job's report; it follows the monitor through /events
//   /events      server-sent events: "snapshot" (the history) once, then "status" and "job" as they change
//   /jobs.json   the history of the jobs' figures;  /jobs/N.json  one job's figures in full
//   /report      the last job's report page (the page of oltb report), made when first asked for
//   /metrics     Prometheus' text format (Metrics.h)
#pragma once

#include "tools/oltb/monitor/Machine.h"

#include <memory>
#include <optional>
#include <string>

namespace oltb::monitor {

struct ListenAddress {
    std::string host;  // a name or a number; IPv6 without brackets
    int port = 0;      // 0: any free port
};

// "ADDRESS:PORT", "[IPV6]:PORT"; nothing for anything else.
std::optional<ListenAddress> parseListenAddress(const std::string& text);

// "127.0.0.1:9496", "[::1]:9496"
std::string describe(const ListenAddress& address);

class WebServer {
public:
    WebServer(Machine& machine, std::string reportSource);
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Binds the listening socket; the reason it could not ("Address already in use"), or empty.
    std::string bind(const ListenAddress& address);
    int port() const;

    // Serves until stop(); the server thread's body.
    void run();
    void stop();

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace oltb::monitor
