// "oltb monitor": watches one machine job after job until Ctrl-C or SIGTERM. Three threads of its own: the reading
// thread keeps the connection to the card and cuts the stream into jobs at the labels (JobReader), the analysing
// thread analyses and saves each job (JobAnalyst), and the web server's threads serve the live page, the history
// and the metrics (WebServer). The main thread binds the web server's address first, so that a wrong address ends
// the command before anything else begins, then only waits for the signal and ends the others in order.
#include "tools/oltb/CommandSupport.h"
#include "tools/oltb/Commands.h"
#include "tools/oltb/Errors.h"
#include "tools/oltb/H5Writer.h"
#include "tools/oltb/Interrupt.h"
#include "tools/oltb/monitor/JobAnalyst.h"
#include "tools/oltb/monitor/JobReader.h"
#include "tools/oltb/monitor/WebServer.h"
#include "tools/oltb/report/Page.h"

#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

namespace oltb::cli {

namespace {

// Events of the jobs waiting for the analysis: 10 jobs of make demo's size, slack for a moment of a busy computer;
// a computer too slow for the jobs skips some whatever the slack.
constexpr std::size_t QueuedBytes = 64u << 20;
constexpr std::chrono::milliseconds InterruptPoll{100};

}  // namespace

int runMonitor(const MonitorOptions& options) {
    if (!report::pageAvailable()) {
        report::renderPage({}, {});  // throws the reason
    }
    if (options.startLabel == options.endLabel) {
        throw UsageError("--start and --end must differ: a job lies between two different labels");
    }
    const std::optional<monitor::ListenAddress> address = monitor::parseListenAddress(options.listen);
    if (!address) {
        throw UsageError("--listen wants ADDRESS:PORT, e.g. 127.0.0.1:9496 or [::1]:9496, not '" + options.listen +
                         "'");
    }
    const int head = options.analysis.head;
    const std::string headPrefix = "Head" + std::to_string(head);
    const std::string signals = options.signals.empty() ? headPrefix + "TxX," + headPrefix + "TxY," + headPrefix +
                                                              "RxX," + headPrefix + "RxY,Gate,LaserPower16,Label"
                                                        : options.signals;
    if (!options.saveDir.empty() && !H5Writer::available()) {
        throw UsageError("this oltb was built without HDF5: --save-dir cannot keep captures");
    }

    monitor::MachineIdentity identity;
    identity.name = options.name.empty() ? options.host : options.name;
    identity.host = options.host;
    identity.head = head;
    identity.startLabel = options.startLabel;
    identity.endLabel = options.endLabel;
    identity.historyLength = options.history;
    std::unique_ptr<monitor::SaveDirectory> save;
    if (!options.saveDir.empty()) {
        save = std::make_unique<monitor::SaveDirectory>(options.saveDir, identity.name,
                                                        static_cast<std::uint64_t>(options.saveLimitMb * 1024 * 1024));
    }
    monitor::ReaderSettings reading;
    reading.host = options.host;
    reading.startLabel = static_cast<std::uint16_t>(options.startLabel);
    reading.endLabel = static_cast<std::uint16_t>(options.endLabel);
    reading.signals = *parseWantedSignals(signals);
    reading.maxWaitSeconds = options.maxWaitSeconds;
    analysis::Options analysisOptions;
    analysisOptions.head = head;
    analysisOptions.settleBandUnits = options.analysis.settleBandUnits;
    analysisOptions.maxEdgeDose = options.analysis.maxEdgeDose;

    monitor::Machine machine(identity);
    monitor::WebServer web(machine, "machine " + identity.name + " (" + options.host + "), labels " +
                                        std::to_string(options.startLabel) + " to " + std::to_string(options.endLabel));
    const std::string failure = web.bind(*address);
    if (!failure.empty()) {
        printError("cannot listen on " + monitor::describe(*address) + ": " + failure);
        return ExitCannotListen;
    }
    // A file size limit makes a save fail (a visible state), not end the monitor.
    std::signal(SIGXFSZ, SIG_IGN);

    // Printed before the reading thread begins: while it connects, the library's notices take standard output.
    monitor::ListenAddress bound = *address;
    bound.port = web.port();
    const std::string url = "http://" + monitor::describe(bound) + "/";
    std::cout << "oltb monitor: watching " << options.host << " as " << identity.name << " (head " << head
              << ", jobs between labels " << options.startLabel << " and " << options.endLabel << ")\n"
              << "live page " << url << "  metrics " << url << "metrics  (Ctrl-C ends it)" << std::endl;

    monitor::JobQueue queue(QueuedBytes);
    monitor::JobReader reader(reading, machine, queue);
    monitor::JobAnalyst analyst(analysisOptions, machine, queue, save.get());
    std::thread webThread, readerThread, analystThread;
    {
        InterruptsBlockedForNewThreads blocked;  // the signals come to this thread only
        webThread = std::thread([&web] { web.run(); });
        analystThread = std::thread([&analyst] { analyst.run(); });
        readerThread = std::thread([&reader] { reader.run(); });
    }
    while (!interruptRequested()) {
        std::this_thread::sleep_for(InterruptPoll);
    }
    // The reader first, so that no job comes after the analysis has ended; the job being analysed is finished
    // (and saved), those still waiting are not.
    reader.stop();
    readerThread.join();
    const std::size_t dropped = queue.close();
    analystThread.join();
    machine.close();
    web.stop();
    webThread.join();
    const std::string waiting = dropped > 0 ? " (" + std::to_string(dropped) + " read but not analysed)" : "";
    std::cout << "oltb monitor: stopped after " << machine.status().jobs << " jobs" << waiting << std::endl;
    return ExitSuccess;
}

}  // namespace oltb::cli
