// The simulator's pure parts, its words decoded by the library's own decoder: word packing with the stamp adjustment
// and time-base words, the job stream whatever the batching, and command frames cut anywhere by TCP. And the job
// model: the scan head's lag and ringing, the gate edges the card's delays put, job files with errors.
#include "CommandFrames.h"
#include "GroundTruth.h"
#include "JobStream.h"
#include "WordEncoder.h"
#include "events/TraceDecoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>

namespace oltbsim {
namespace {

using OLVEN::TALIX3::TraceBuffer::TraceDecoder;

std::vector<oltbTraceEvent> decode(const std::vector<std::uint64_t>& words, std::uint64_t timeBase = 0) {
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> events;
    oltbTraceEvent word{};
    oltbTraceEvent samples[32];
    bool late = false;
    if (timeBase != 0) decoder.processEvent(packWord(0, kTimeBaseType, static_cast<std::uint32_t>(timeBase >> 24)), word, late);
    for (const std::uint64_t w : words) {
        unsigned next = 0, end = 32;
        if (decoder.processEvent(w, word, late)) decoder.unpackEvents(word, samples, next, end);
        events.insert(events.end(), samples, samples + next);
    }
    return events;
}

TEST(WordEncoder, FieldsAndSamplesLandInTheirBits) {
    EXPECT_EQ(packWord(0x123456, 32, 0xDEADBEEF), 0xDEADBEEF20123456U);
    EXPECT_EQ(packWord(0x1FFFFFF, 126, 0x00050007, true), 0x00050007FEFFFFFFU) << "field taken modulo 2^24";
    std::uint32_t alternating[32];
    for (unsigned i = 0; i < 32; ++i) alternating[i] = (i + 1) % 2;
    EXPECT_EQ(packSamples(1, alternating), 0xAAAAAAAAU);
    const std::uint32_t nibbles[8] = {1, 2, 3, 4, 5, 6, 7, 0x1F};  // the last is cut to 4 bits
    EXPECT_EQ(packSamples(4, nibbles), 0x1234567FU);
    const std::uint32_t halves[2] = {0x1234, 0xABCD};
    EXPECT_EQ(packSamples(16, halves), 0x1234ABCDU);
}

// For every width the client's adjustment +(32 - n) brings the first sample back to its tick, also just behind a
// time-base boundary; a time-base word opens the stream and every new period, and again after a restart.
TEST(WordEncoder, FirstSampleLandsOnItsTickAcrossTimeBases) {
    for (const std::uint32_t type : {oltbEventHead0TxX, oltbEventPortA, oltbEventPortDHigh, oltbEventLaserPower4,
                                     oltbEventLaserPower2, oltbEventGate}) {
        for (const std::uint64_t tick : {std::uint64_t{5000}, 3 * kTicksPerTimeBase, 3 * kTicksPerTimeBase + 7,
                                         3 * kTicksPerTimeBase - 1}) {
            WordEncoder encoder;
            std::vector<std::uint64_t> words;
            std::uint32_t samples[32] = {1};
            encoder.append(words, fieldTickOf(type, tick), type, packSamples(sampleWidthBits(type), samples));
            const std::vector<oltbTraceEvent> events = decode(words);
            ASSERT_FALSE(events.empty());
            EXPECT_EQ(events.front().Timestamp, tick) << "type " << type;
            EXPECT_EQ(events.front().Value, 1);
        }
    }
    WordEncoder encoder;
    std::vector<std::uint64_t> words;
    const std::uint64_t ticks[] = {59 * kTicksPerTimeBase + 100, 60 * kTicksPerTimeBase - 1, 60 * kTicksPerTimeBase,
                                   62 * kTicksPerTimeBase + 5};  // a silent period is skipped
    for (std::uint32_t i = 0; i < 4; ++i) encoder.append(words, ticks[i], oltbEventSpi0Rx, i);
    EXPECT_EQ(words.size(), 7U) << "time bases 59, 60 and 62";
    const std::vector<oltbTraceEvent> events = decode(words);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(events.at(i).Timestamp, ticks[i]);
    encoder.restart();
    words.clear();
    encoder.append(words, 62 * kTicksPerTimeBase + 9, oltbEventSpi0Rx, 5);
    EXPECT_EQ(words.size(), 2U) << "a restarted stream opens with its time base again";
}

SignalSelection selectionOf(std::initializer_list<std::uint32_t> types) {
    SignalSelection selection;
    for (const std::uint32_t type : types) selection.setTraced(type, true);
    return selection;
}

TEST(JobStream, BatchingDoesNotChangeTheStreamAndANewSignalFirstShowsItsState) {
    constexpr std::uint64_t kStart = 1000000000;  // the default card clock, a multiple of 640
    const MarkingJob job;
    const SignalSelection selection = selectionOf({oltbEventHead0TxX, oltbEventHead0RxX, oltbEventHead1TxX,
                                                   oltbEventGate, oltbEventLaserPower2, oltbEventPortA, oltbEventLabel});
    const std::uint64_t until = kStart + job.jobEndTick() + 5000;
    JobStream whole(job);
    whole.start(kStart, selection);
    std::vector<std::uint64_t> wholeWords;
    whole.generate(until, SIZE_MAX, wholeWords);
    JobStream batched(job);
    batched.start(kStart, selection);
    std::vector<std::uint64_t> pieces;
    for (std::size_t batch = 1, horizon = kStart; batched.nextTick() < until; batch = batch % 37 + 1) {
        horizon = std::min<std::uint64_t>(until, horizon + 3001);
        batched.generate(horizon, batch, pieces);
    }
    EXPECT_EQ(pieces, wholeWords);
    for (const std::uint64_t word : wholeWords) {
        if ((word >> 24 & 0x7F) == oltbEventLabel) {
            EXPECT_EQ(word >> 32 & 0xFFFF, 1U) << "label words count the runs from 1";
        }
    }

    JobStream stream(job);
    stream.start(kStart, selectionOf({oltbEventHead0TxX}));
    const std::uint64_t busyTick = kStart + job.jobStartTick() + 10 * 640;
    std::vector<std::uint64_t> words;
    stream.generate(busyTick, SIZE_MAX, words);
    stream.select(selectionOf({oltbEventHead0TxX, oltbEventPortLaserOut1}));
    words.clear();
    stream.generate(busyTick + 640, SIZE_MAX, words);
    std::vector<oltbTraceEvent> busy = decode(words, (busyTick >> 24) << 24);
    busy.erase(std::remove_if(busy.begin(), busy.end(), [](const oltbTraceEvent& e) { return e.Type != oltbEventPortLaserOut1; }),
               busy.end());
    ASSERT_EQ(busy.size(), 1U);
    EXPECT_EQ(busy.front().Value, 1) << "the job runs";
    EXPECT_EQ(busy.front().Timestamp, busyTick + 31);
}

TEST(CommandFrameReader, ReassemblesFramesFedOneByteAtATimeAndSkipsStrayBytes) {
    std::vector<std::uint8_t> stream = {0x01, 0x02, 0x03, 0x4D, 0x81};
    stream.resize(3 + kCommandFrameSize, 0x5A);
    stream.insert(stream.end(), {0x4D, 0x82});
    stream.resize(3 + 2 * kCommandFrameSize, 0);
    stream.push_back(0x07);
    CommandFrameReader reader;
    std::vector<std::string> reads;
    for (const std::uint8_t byte : stream) {
        reader.feed(&byte, 1);
        for (CommandRead read = reader.next(); read.outcome != CommandReadOutcome::needMoreData; read = reader.next()) {
            reads.push_back(read.outcome == CommandReadOutcome::frame
                                ? "frame " + std::to_string(read.frame.code) + " " + std::to_string(read.frame.payload[16])
                                : "skipped " + std::to_string(read.skipped));
        }
    }
    EXPECT_EQ(reads, (std::vector<std::string>{"skipped 1", "skipped 1", "skipped 1", "frame 129 90", "frame 130 0", "skipped 1"}));
}

MarkingJob jobOf(const std::string& text, JobSettings settings = {}) {
    settings.program = parseJob(text, "job.txt");
    return MarkingJob(settings);
}

// Mid-way along a long diagonal line, how long ago the commanded path was where the mirror is now, per axis.
TEST(ServoModel, AtConstantSpeedTheMirrorTrailsByTheTrackingError) {
    const ServoSettings servos[] = {{ServoKind::secondOrder, 100, 0.4, 1e6}, {ServoKind::secondOrder, 400, 1.3, 1e6},
                                    {ServoKind::delay, 333, 1, 1}};
    for (const ServoSettings& servo : servos) {
        JobSettings settings;
        settings.servo = servo;
        const MarkingJob job = jobOf("jump -400000 -100000\nmark 400000 100000\n", settings);
        const ScheduledMark& mark = job.marks().at(0);
        const std::uint64_t middle = (mark.motionStartTick + mark.motionEndTick) / 2 / 640 * 640;
        for (std::uint64_t tick = middle - 5 * 64000; tick < middle + 5 * 64000; tick += 64000) {
            const auto t = static_cast<std::int64_t>(tick);
            const Position3 actual = job.actual(0, t), now = job.commanded(0, t), later = job.commanded(0, t + 64000);
            EXPECT_NEAR(static_cast<double>(now.x - actual.x) * 1000 / static_cast<double>(later.x - now.x), servo.trackingErrorUs, 1.0);
            EXPECT_NEAR(static_cast<double>(now.y - actual.y) * 1000 / static_cast<double>(later.y - now.y), servo.trackingErrorUs, 1.0);
        }
        EXPECT_NEAR(explainJob(job).trackingErrorUs, servo.trackingErrorUs, 1.0) << "the least-squares lag";
    }
}

// The mirror's samples after a long jump: beyond the target and back below damping 1, creeping in at 1; what
// --explain reports of the arrival agrees with them.
TEST(ServoModel, BelowDampingOneALongJumpOvershootsAndThenSettles) {
    for (const double damping : {0.4, 1.0}) {
        JobSettings settings;
        settings.servo.damping = damping;
        settings.servo.maxAccelerationUnitsPerMs2 = 1e6;
        settings.timing.jumpDelayUs = 8000;
        const MarkingJob job = jobOf("jump 400000 0\nmark 400000 1000\n", settings);
        const ScheduledJump& jump = job.jumps().at(0);
        std::int64_t furthest = INT64_MIN;
        std::uint64_t lastOutside = 0;
        for (std::uint64_t tick = jump.motionEndTick; tick < jump.nextMotionTick; tick += 640) {
            const Position3 actual = job.actual(0, static_cast<std::int64_t>(tick));
            furthest = std::max(furthest, actual.x - 400000);
            if (std::hypot(actual.x - 400000.0, static_cast<double>(actual.y)) > 100) lastOutside = tick;
        }
        if (damping < 1) {
            EXPECT_GT(furthest, 2000) << "overshoot";
        } else {
            EXPECT_EQ(furthest, 0);
        }
        EXPECT_LT(lastOutside + 640, jump.nextMotionTick) << "settled before the path moves on";
        const JumpArrival arrival = job.arrivals().at(0);
        EXPECT_NEAR(arrival.overshootUnits, static_cast<double>(furthest), damping < 1 ? 20 : 1);
        EXPECT_GT(static_cast<double>(jump.motionEndTick) + arrival.settleTicks, static_cast<double>(lastOutside));
        EXPECT_LE(static_cast<double>(jump.motionEndTick) + arrival.settleTicks, static_cast<double>(lastOutside + 640));
    }
}

// A 1 ms jump and its delay, then a polyline of two 1 ms segments around a corner: the gate, the power, the labels
// and the path stand where the delays put them; a laser-off delay beyond the mark delay holds the next command.
TEST(CardTiming, GateEdgesLabelsAndCornersSitWhereTheDelaysPutThem) {
    for (const auto& [markDelayUs, laserOffDelayUs, endLabelAfter] : {std::tuple{150.0, 80.0, 9600U}, {0.0, 333.0, 21760U}}) {
        JobSettings settings;
        settings.timing = {10000, 5000, 100, markDelayUs, 20, 123.5, laserOffDelayUs};
        settings.servo = {ServoKind::delay, 250, 1, 1};
        const MarkingJob job = jobOf("jump 10000 0\nlabel 5\nmark 10000 5000\nmark 15000 5000\nlabel 6\n", settings);
        constexpr std::uint64_t start = 64000 + 64000 + 6400;  // lead-in, jump, jump delay
        constexpr std::uint64_t corner = start + 64000;
        constexpr std::uint64_t end = corner + 1280 + 64000;    // polygon delay, second segment
        const std::uint64_t off = end + static_cast<std::uint64_t>(laserOffDelayUs * 64);
        std::vector<std::pair<std::uint64_t, std::uint32_t>> gate, power;
        for (const SignalChange& change : job.changesOf(oltbEventGate)) gate.emplace_back(change.tick, change.value);
        for (const SignalChange& change : job.changesOf(oltbEventLaserPower16)) power.emplace_back(change.tick, change.value);
        EXPECT_EQ(gate, (std::vector<std::pair<std::uint64_t, std::uint32_t>>{{start + 7904, 1}, {off, 0}}));
        EXPECT_EQ(power, (std::vector<std::pair<std::uint64_t, std::uint32_t>>{{start + 7904, 0x8000}, {off, 0}}));
        ASSERT_EQ(job.labels().size(), 2U);
        EXPECT_EQ(job.labels()[0].tick, start);
        EXPECT_EQ(job.labels()[1].tick, end + endLabelAfter);
        for (const std::uint64_t tick : {corner, corner + 1280}) {
            EXPECT_EQ(job.commanded(0, static_cast<std::int64_t>(tick)).y, 5000) << "the path stands at the corner";
        }
        EXPECT_GT(job.commanded(0, corner + 1280 + 640).x, 10000);
        const JobTruth truth = explainJob(job);
        EXPECT_NEAR(truth.trackingErrorUs, 250, 0.01);
        EXPECT_NEAR(truth.marks.at(0).laserOnOffsetUs, 123.5 - 250, 0.01);
        EXPECT_NEAR(truth.marks.at(0).laserOffOffsetUs, laserOffDelayUs - 250, 0.01);
    }
}

// A narrow laser line shows any power above 0 (the level rounds up), and full power as its largest value.
TEST(JobFile, PowerOnNarrowLaserLines) {
    const std::tuple<std::uint32_t, unsigned, std::uint32_t> cases[] = {
        {0, 1, 0}, {1, 1, 1}, {1, 8, 1}, {0x8000, 8, 128}, {0xFFFF, 4, 15}, {0xFFFF, 16, 0xFFFF}};
    for (const auto& [power, bits, level] : cases) EXPECT_EQ(scalePower(power, bits), level) << power << " " << bits;
}

TEST(JobFile, ErrorsNameTheFileTheLineAndWhatIsWrong) {
    const std::pair<const char*, const char*> cases[] = {
        {"jump 0 0\n\n  # a comment\nmrak 1 2\n", "job.txt:4: unknown command 'mrak' (jump, mark, arc, label, power, wait, speed)"},
        {"mark 1 # 2\n", "job.txt:1: 'mark' takes 2 arguments (X Y), got 1"},
        {"jump 524288 0\n", "job.txt:1: X 524288 lies outside the field (-524287..524287)"},
        {"jump 0 1.5\n", "job.txt:1: Y must be a whole number of head units: 1.5"},
        {"wait ten\n", "job.txt:1: the wait is not a number: 'ten'"},
        {"speed laser 5\n", "job.txt:1: 'speed' sets 'jump' or 'mark', not 'laser'"},
        {"label 0x4D01\n", "job.txt:1: labels 19712 to 19967 (0x4D00..0x4DFF) are not used"},
        {"power 0x4D20\n", "job.txt:1: power 0x4D20 is not used"},
        {"jump 480000 360000\narc 0 0 106\n", "job.txt:2: the arc leaves the field"},  // beyond at 90 degrees only
        {"wait 1e7\nwait 1e7\nwait 1e7\nwait 1e7\nwait 1e7\nwait 1e7\nwait 1e7\n", "job.txt: the job lasts 70.0 s"},
        {"# nothing\n", "job.txt: the job has no commands"},
    };
    for (const auto& [text, message] : cases) {
        try {
            jobOf(text);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const JobFileError& e) {
            EXPECT_EQ(std::string(e.what()).rfind(message, 0), 0U) << e.what();
        }
    }
}

}  // namespace
}  // namespace oltbsim
