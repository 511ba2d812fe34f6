// The machine's figures in Prometheus' text exposition format (version 0.0.4), for one Prometheus server to scrape
// many monitors. Every series carries the machine's name; the figures of a head also the head, and those of an axis
// the axis. Times are in seconds and lengths in head units, as the metric names say. The figures are those of the
// last job: a scrape between two jobs sees the same values again, and a monitor that has no job yet has none.
#pragma once

#include "tools/oltb/monitor/Machine.h"

#include <string>

namespace oltb::monitor {

std::string prometheusText(const MachineIdentity& identity, const MachineStatus& status);

}  // namespace oltb::monitor
