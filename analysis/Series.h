// Sampled signals as the analysis sees them: the samples of one position channel, a head's path in the plane,
// the intervals with the gate on, and reading a channel between its samples.
#pragma once

#include <cstddef>
#include <vector>

namespace oltb::analysis {

// Samples of one channel in time order.
struct Series {
    std::vector<double> t;  // us
    std::vector<double> v;  // head units
    std::size_t size() const { return t.size(); }
    bool empty() const { return t.empty(); }
    void add(double time, double value) {
        t.push_back(time);
        v.push_back(value);
    }
};

// A head's position in the plane, on the sample times of its X channel (Y read between its own samples);
// a channel that is not traced reads 0.
struct Path {
    std::vector<double> t, x, y;
    std::size_t size() const { return t.size(); }
    bool empty() const { return t.empty(); }
};
// Takes the channels' samples over (they are usually on one clock, so nothing needs copying).
Path joinAxes(Series x, Series y);

// [on, off) of the gate; `openStart`/`openEnd`: the gate was already on when the trace began, or still on when it
// ended, so that edge is not a real one.
struct Interval {
    double on = 0;
    double off = 0;
    bool openStart = false;
    bool openEnd = false;
};

// The typical spacing of the samples (the median of the gaps), 0 for fewer than two samples.
double typicalSpacing(const std::vector<double>& t);

double median(std::vector<double> values);

// Reads a channel at increasing times with linear interpolation between its samples, in amortised constant time.
// Gives nothing before the first sample, after the last, or inside a gap longer than `maxGap` (lost samples).
class ForwardReader {
public:
    ForwardReader(const std::vector<double>& t, const std::vector<double>& v, double maxGap)
        : _t(t), _v(v), _maxGap(maxGap) {}

    bool at(double time, double& value) {
        const std::size_t n = _t.size();
        if (n < 2 || time < _t[0] || time > _t[n - 1]) {
            return false;
        }
        while (_j + 2 < n && _t[_j + 1] <= time) {
            ++_j;
        }
        const double t0 = _t[_j];
        const double t1 = _t[_j + 1];
        const double span = t1 - t0;
        if (span > _maxGap) {
            return false;
        }
        const double f = span > 0 ? (time - t0) / span : 0.0;
        value = _v[_j] + f * (_v[_j + 1] - _v[_j]);
        return true;
    }

private:
    const std::vector<double>& _t;
    const std::vector<double>& _v;
    double _maxGap;
    std::size_t _j = 0;
};

// The samples of `series` that lie inside the intervals.
Series within(const Series& series, const std::vector<Interval>& intervals);

}  // namespace oltb::analysis
