#include "tools/oltb/monitor/WebServer.h"

#include "tools/oltb/monitor/Metrics.h"
#include "tools/oltb/report/Page.h"
#include "tools/oltb/report/PageData.h"

#include <httplib.h>
#include <malloc.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>

namespace oltb::monitor {

// Made at build time from live.html, live.css and live.js (cmake/EmbedText.cmake).
extern const char livePage[];
extern const char liveStyle[];
extern const char liveScript[];

namespace {

// Each live page holds a thread of the pool while it is open; the rest serve scrapes, reports and the pages.
constexpr int ServerThreads = 24;
constexpr int MostLivePages = 16;
// A comment line this often keeps proxies from closing an idle stream and finds pages that went away.
constexpr std::chrono::seconds HeartbeatInterval{15};
// At most this many jobs per update of a live page that fell behind; it has the history for the rest.
constexpr std::size_t MostJobsPerUpdate = 100;
// The last job's report: smaller than oltb report's, since the page reloads it as jobs come.
constexpr std::size_t ReportByteBudget = 4'000'000;

// One server-sent event; each line of the data gets its own "data:" field.
std::string serverSentEvent(const std::string& name, const std::string& data) {
    std::string text = "event: " + name + "\n";
    for (std::size_t begin = 0; begin <= data.size();) {
        const std::size_t end = std::min(data.find('\n', begin), data.size());
        text += "data: " + data.substr(begin, end - begin) + "\n";
        begin = end + 1;
    }
    return text + "\n";
}

// What one live page has been sent.
struct LiveStream {
    bool begun = false;
    std::uint64_t changes = 0;
    std::uint64_t lastJob = 0;
};

}  // namespace

struct WebServer::State {
    Machine& machine;
    const std::string reportSource;
    const std::string page;
    httplib::Server server;
    int port = 0;
    std::atomic<int> livePages{0};
    std::atomic<bool> ended{false};  // run() returned
    std::mutex reportMutex;          // one report made at a time; the others wait for it
    std::uint64_t reportId = 0;
    std::shared_ptr<const std::string> reportPage;

    State(Machine& m, std::string source)
        : machine(m),
          reportSource(std::move(source)),
          page(report::renderChartPage(livePage, "oltb monitor: " + m.identity().name, liveStyle, liveScript)) {}

    // The text to send a live page next: everything at first, then what changed; a heartbeat when nothing did.
    std::string nextEvents(LiveStream& stream) {
        if (!stream.begun) {
            stream.begun = true;
            // Counted before the history is taken, so that a change meanwhile is sent again rather than missed.
            stream.changes = machine.waitForChange(0, std::chrono::milliseconds(0));
            const MachineStatus status = machine.status();
            stream.lastJob = status.lastJob ? status.lastJob->id : 0;
            return serverSentEvent("snapshot", machine.historyJson());
        }
        const std::uint64_t changes = machine.waitForChange(stream.changes, HeartbeatInterval);
        if (changes == stream.changes) {
            return ": still here\n\n";
        }
        stream.changes = changes;
        std::string text = serverSentEvent("status", machine.statusJson());
        for (const JobFigures& job : machine.jobsAfter(stream.lastJob, MostJobsPerUpdate)) {
            text += serverSentEvent("job", toJson(job, false));
            stream.lastJob = job.id;
        }
        return text;
    }

    std::shared_ptr<const std::string> lastReport() {
        const std::shared_ptr<const JobCapture> capture = machine.lastCapture();
        if (!capture) {
            return nullptr;
        }
        std::lock_guard<std::mutex> lock(reportMutex);
        if (!reportPage || reportId != capture->id) {
            report::PageOptions options;
            options.source = reportSource + ", job " + std::to_string(capture->id);
            options.byteBudget = ReportByteBudget;
            reportPage = std::make_shared<const std::string>(report::renderPage(
                "oltb monitor: " + options.source,
                report::pageData(capture->events.data(), capture->events.size(), capture->result, options)));
            reportId = capture->id;
            malloc_trim(0);  // as after an analysis (JobAnalyst.cpp): making the page freed as much on this thread
        }
        return reportPage;
    }

    void route();
};

void WebServer::State::route() {
    server.Get("/", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(page, "text/html; charset=utf-8");
    });
    server.Get("/metrics", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(prometheusText(machine.identity(), machine.status()),
                             "text/plain; version=0.0.4; charset=utf-8");
    });
    server.Get("/jobs.json", [this](const httplib::Request&, httplib::Response& response) {
        response.set_content(machine.historyJson(), "application/json");
    });
    server.Get(R"(/jobs/(\d{1,19})\.json)", [this](const httplib::Request& request, httplib::Response& response) {
        const std::optional<JobFigures> job = machine.job(std::stoull(request.matches[1].str()));
        if (!job) {
            response.status = 404;
            response.set_content("{\"error\": \"no such job in the history\"}", "application/json");
            return;
        }
        response.set_content(toJson(*job, false), "application/json");
    });
    server.Get("/report", [this](const httplib::Request&, httplib::Response& response) {
        const std::shared_ptr<const std::string> lastPage = lastReport();
        if (!lastPage) {
            response.set_content("<!DOCTYPE html><title>no job yet</title><p>No job has ended yet.</p>",
                                 "text/html; charset=utf-8");
            return;
        }
        response.set_header("Cache-Control", "no-store");
        response.set_content(*lastPage, "text/html; charset=utf-8");
    });
    server.Get("/events", [this](const httplib::Request&, httplib::Response& response) {
        if (livePages.fetch_add(1) >= MostLivePages) {
            livePages.fetch_sub(1);
            response.status = 503;
            response.set_content("too many live pages are open on this monitor", "text/plain");
            return;
        }
        response.set_header("Cache-Control", "no-store");
        auto stream = std::make_shared<LiveStream>();
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, stream](std::size_t, httplib::DataSink& sink) {
                const std::string text = nextEvents(*stream);
                if (machine.closed()) {
                    sink.done();
                    return true;
                }
                return sink.write(text.data(), text.size());
            },
            [this](bool) { livePages.fetch_sub(1); });
    });
}

std::optional<ListenAddress> parseListenAddress(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size() || colon + 6 < text.size()) {
        return std::nullopt;
    }
    ListenAddress address;
    address.host = text.substr(0, colon);
    if (address.host.front() == '[') {
        if (address.host.size() < 3 || address.host.back() != ']') {
            return std::nullopt;
        }
        address.host = address.host.substr(1, address.host.size() - 2);
    } else if (address.host.find(':') != std::string::npos) {
        return std::nullopt;  // an IPv6 address needs its brackets
    }
    int port = 0;
    for (std::size_t i = colon + 1; i < text.size(); ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return std::nullopt;
        }
        port = port * 10 + (text[i] - '0');
    }
    if (port > 65535) {
        return std::nullopt;
    }
    address.port = port;
    return address;
}

std::string describe(const ListenAddress& address) {
    const bool v6 = address.host.find(':') != std::string::npos;
    return (v6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

namespace {

// Why `address` cannot be bound: httplib only says that it could not, so the same bind is tried here for its error.
std::string whyNotBound(const ListenAddress& address) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* found = nullptr;
    const int resolved = getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
    if (resolved != 0) {
        return gai_strerror(resolved);
    }
    std::string reason = "no address to bind";
    for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        const int socketHandle = ::socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC, entry->ai_protocol);
        if (socketHandle < 0) {
            reason = std::strerror(errno);
            continue;
        }
        const int yes = 1;
        setsockopt(socketHandle, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        const bool bound =
            ::bind(socketHandle, entry->ai_addr, entry->ai_addrlen) == 0 && ::listen(socketHandle, 1) == 0;
        reason = bound ? "the address was taken meanwhile" : std::strerror(errno);
        ::close(socketHandle);
        break;
    }
    freeaddrinfo(found);
    return reason;
}

}  // namespace

WebServer::WebServer(Machine& machine, std::string reportSource)
    : _state(std::make_unique<State>(machine, std::move(reportSource))) {
    httplib::Server& server = _state->server;
    server.new_task_queue = [] { return new httplib::ThreadPool(ServerThreads); };
    // Short, so that stop() does not wait long for idle connections; a scraper reconnects at its next scrape.
    server.set_keep_alive_timeout(2);
    // httplib's default is SO_REUSEPORT, with which a second monitor on the same address binds as well and the
    // kernel splits the connections between the two: scrapes would see either machine. SO_REUSEADDR alone only
    // lets a restarted monitor take its address back at once.
    server.set_socket_options([](socket_t socketHandle) {
        const int yes = 1;
        setsockopt(socketHandle, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    _state->route();
}

WebServer::~WebServer() = default;

std::string WebServer::bind(const ListenAddress& address) {
    httplib::Server& server = _state->server;
    if (address.port == 0) {
        _state->port = server.bind_to_any_port(address.host);
        if (_state->port > 0) {
            return {};
        }
    } else if (server.bind_to_port(address.host, address.port)) {
        _state->port = address.port;
        return {};
    }
    return whyNotBound(address);
}

int WebServer::port() const { return _state->port; }

void WebServer::run() {
    try {
        _state->server.listen_after_bind();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "oltb: monitor: the web server ended: %s\n", error.what());
    }
    _state->ended = true;
}

void WebServer::stop() {
    // httplib's stop() ends only a server that already runs: give a thread that is just starting time to begin.
    for (int waited = 0; waited < 500 && !_state->server.is_running() && !_state->ended; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    _state->server.stop();
}

}  // namespace oltb::monitor
