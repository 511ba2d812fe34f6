// The simulator's pure parts, its words decoded by the library's own decoder: word packing with the stamp adjustment
// and time-base words, the job stream whatever the batching, and command frames cut anywhere by TCP. And the job
// model: the scan head's lag and ringing, the gate edges the card's delays put, job files with errors.
#include "events/SignalList.h"
#include "events/TraceDecoder.h"
#include "tools/oltb-sim/CommandFrames.h"
#include "tools/oltb-sim/GroundTruth.h"
#include "tools/oltb-sim/JobStream.h"
#include "tools/oltb-sim/JumpTable.h"
#include "tools/oltb-sim/SettingsFile.h"
#include "tools/oltb-sim/WordEncoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>

namespace oltb::sim {
namespace {

using OLVEN::TALIX3::TraceBuffer::TraceDecoder;

std::vector<oltbTraceEvent> decode(const std::vector<std::uint64_t>& words, std::uint64_t timeBase = 0) {
    TraceDecoder decoder;
    std::vector<oltbTraceEvent> events;
    oltbTraceEvent word{};
    oltbTraceEvent samples[32];
    bool late = false;
    if (timeBase != 0)
        decoder.processEvent(packWord(0, TimeBaseType, static_cast<std::uint32_t>(timeBase >> 24)), word, late);
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
// The simulator encodes with sample widths of its own: a slip in either them or the library's list of signals (from
// which the decoding core takes its widths) shows here.
TEST(WordEncoder, SampleWidthsAreThoseOfTheLibrarysSignals) {
    for (const auto& signal : OLVEN::TALIX3::TraceBuffer::Signals) {
        EXPECT_EQ(sampleWidthBits(static_cast<std::uint32_t>(signal.type)), signal.bitsPerSample) << signal.name;
    }
}

TEST(WordEncoder, FirstSampleLandsOnItsTickAcrossTimeBases) {
    for (const std::uint32_t type : {oltbEventHead0TxX, oltbEventPortA, oltbEventPortDHigh, oltbEventLaserPower4,
                                     oltbEventLaserPower2, oltbEventGate}) {
        for (const std::uint64_t tick :
             {std::uint64_t{5000}, 3 * TicksPerTimeBase, 3 * TicksPerTimeBase + 7, 3 * TicksPerTimeBase - 1}) {
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
    const std::uint64_t ticks[] = {59 * TicksPerTimeBase + 100, 60 * TicksPerTimeBase - 1, 60 * TicksPerTimeBase,
                                   62 * TicksPerTimeBase + 5};  // a silent period is skipped
    for (std::uint32_t i = 0; i < 4; ++i) encoder.append(words, ticks[i], oltbEventSpi0Rx, i);
    EXPECT_EQ(words.size(), 7U) << "time bases 59, 60 and 62";
    const std::vector<oltbTraceEvent> events = decode(words);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(events.at(i).Timestamp, ticks[i]);
    encoder.restart();
    words.clear();
    encoder.append(words, 62 * TicksPerTimeBase + 9, oltbEventSpi0Rx, 5);
    EXPECT_EQ(words.size(), 2U) << "a restarted stream opens with its time base again";
}

SignalSelection selectionOf(std::initializer_list<std::uint32_t> types) {
    SignalSelection selection;
    for (const std::uint32_t type : types) selection.setTraced(type, true);
    return selection;
}

TEST(JobStream, BatchingDoesNotChangeTheStreamAndANewSignalFirstShowsItsState) {
    constexpr std::uint64_t Start = 1000000000;  // the default card clock, a multiple of 640
    const MarkingJob job;
    const SignalSelection selection =
        selectionOf({oltbEventHead0TxX, oltbEventHead0RxX, oltbEventHead1TxX, oltbEventGate, oltbEventLaserPower2,
                     oltbEventPortA, oltbEventLabel});
    const std::uint64_t until = Start + job.jobEndTick() + 5000;
    JobStream whole(job);
    whole.start(Start, selection);
    std::vector<std::uint64_t> wholeWords;
    whole.generate(until, SIZE_MAX, wholeWords);
    JobStream batched(job);
    batched.start(Start, selection);
    std::vector<std::uint64_t> pieces;
    for (std::size_t batch = 1, horizon = Start; batched.nextTick() < until; batch = batch % 37 + 1) {
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
    stream.start(Start, selectionOf({oltbEventHead0TxX}));
    const std::uint64_t busyTick = Start + job.jobStartTick() + 10 * 640;
    std::vector<std::uint64_t> words;
    stream.generate(busyTick, SIZE_MAX, words);
    stream.select(selectionOf({oltbEventHead0TxX, oltbEventPortLaserOut1}));
    words.clear();
    stream.generate(busyTick + 640, SIZE_MAX, words);
    std::vector<oltbTraceEvent> busy = decode(words, (busyTick >> 24) << 24);
    busy.erase(std::remove_if(busy.begin(), busy.end(),
                              [](const oltbTraceEvent& e) { return e.Type != oltbEventPortLaserOut1; }),
               busy.end());
    ASSERT_EQ(busy.size(), 1U);
    EXPECT_EQ(busy.front().Value, 1) << "the job runs";
    EXPECT_EQ(busy.front().Timestamp, busyTick + 31);
}

TEST(CommandFrameReader, ReassemblesFramesFedOneByteAtATimeAndSkipsStrayBytes) {
    std::vector<std::uint8_t> stream = {0x01, 0x02, 0x03, 0x4D, 0x81};
    stream.resize(3 + CommandFrameSize, 0x5A);
    stream.insert(stream.end(), {0x4D, 0x82});
    stream.resize(3 + 2 * CommandFrameSize, 0);
    stream.push_back(0x07);
    CommandFrameReader reader;
    std::vector<std::string> reads;
    for (const std::uint8_t byte : stream) {
        reader.feed(&byte, 1);
        for (CommandRead read = reader.next(); read.outcome != CommandReadOutcome::needMoreData; read = reader.next()) {
            reads.push_back(read.outcome == CommandReadOutcome::frame ? "frame " + std::to_string(read.frame.code) +
                                                                            " " + std::to_string(read.frame.payload[16])
                                                                      : "skipped " + std::to_string(read.skipped));
        }
    }
    EXPECT_EQ(reads, (std::vector<std::string>{"skipped 1", "skipped 1", "skipped 1", "frame 129 90", "frame 130 0",
                                               "skipped 1"}));
}

MarkingJob jobOf(const std::string& text, JobSettings settings = {}) {
    settings.program = parseJob(text, "job.txt");
    return MarkingJob(settings);
}

// Mid-way along a long diagonal line, how long ago the commanded path was where the mirror is now, per axis: the
// loop's lag, plus the driver filter's time constant in front of it.
TEST(ServoModel, AtConstantSpeedTheMirrorTrailsByTheTrackingErrorAndTheDriverFilter) {
    const std::pair<ServoSettings, double> servos[] = {{{ServoKind::secondOrder, 100, 0.4, 1e6}, 100},
                                                       {{ServoKind::secondOrder, 400, 1.3, 1e6}, 400},
                                                       {{ServoKind::secondOrder, 200, 0.7, 1e6, 150}, 350},
                                                       {{ServoKind::delay, 333, 1, 1}, 333}};
    for (const auto& [servo, lagUs] : servos) {
        JobSettings settings;
        settings.servo = servo;
        const MarkingJob job = jobOf("jump -400000 -100000\nmark 400000 100000\n", settings);
        const ScheduledMark& mark = job.marks().at(0);
        const std::uint64_t middle = (mark.motionStartTick + mark.motionEndTick) / 2 / 640 * 640;
        for (std::uint64_t tick = middle - 5 * 64000; tick < middle + 5 * 64000; tick += 64000) {
            const auto t = static_cast<std::int64_t>(tick);
            const Position3 actual = job.actual(0, t), now = job.commanded(0, t), later = job.commanded(0, t + 64000);
            EXPECT_NEAR(static_cast<double>(now.x - actual.x) * 1000 / static_cast<double>(later.x - now.x), lagUs,
                        1.0);
            EXPECT_NEAR(static_cast<double>(now.y - actual.y) * 1000 / static_cast<double>(later.y - now.y), lagUs,
                        1.0);
        }
        EXPECT_NEAR(explainJob(job).trackingErrorUs, lagUs, 1e-9);
    }
}

// An axis slower than the jumps: no sample moves faster than the limit, the long jump reaches it and still arrives;
// a limit below the mark speed leaves the head without a steady lag.
TEST(ServoModel, NoAxisMovesFasterThanTheVelocityLimit) {
    for (const double limit : {8000.0, 3000.0}) {
        JobSettings settings;
        settings.servo.maxVelocityUnitsPerMs = limit;
        settings.timing.jumpDelayUs = 1e5;
        const MarkingJob job = jobOf("jump 200000 -150000\nmark 200000 -140000\n", settings);
        double fastest = 0;
        for (std::int64_t tick = 640; tick < static_cast<std::int64_t>(job.cycleTicks()); tick += 640) {
            const Position3 a = job.actual(0, tick - 640), b = job.actual(0, tick);
            fastest = std::max(
                {fastest, std::fabs(static_cast<double>(b.x - a.x)), std::fabs(static_cast<double>(b.y - a.y))});
        }
        EXPECT_LE(fastest, limit / 100 + 1) << "units per 10 us";
        EXPECT_GE(fastest, limit / 100 - 1);
        const JobTruth truth = explainJob(job);
        EXPECT_TRUE(truth.mirror.jumps.at(0).settled);
        EXPECT_EQ(std::isnan(truth.trackingErrorUs), limit < 5000);
    }
}

// A long jump and the next motion after the jump delay. The settle time is the last time the mirror is outside the
// band with the command held at the target: it agrees with the trace when the mirror has come to rest before the
// next motion; a ringing mirror that passes through the band just when the next motion starts has not settled.
TEST(MirrorFigures, AJumpSettlesWhenTheMirrorLastLeavesTheBand) {
    const auto settle = [](const double damping, const double jumpDelayUs) {
        JobSettings settings;
        settings.servo.damping = damping;
        settings.servo.maxAccelerationUnitsPerMs2 = 1e6;
        settings.timing.jumpDelayUs = jumpDelayUs;
        const MarkingJob job = jobOf("jump 400000 0\nmark 400000 1000\n", settings);
        return std::pair{job, explainJob(job).mirror.jumps.at(0)};
    };
    const auto distance = [](const MarkingJob& job, const std::uint64_t tick) {
        const Position3 actual = job.actual(0, static_cast<std::int64_t>(tick));
        return std::hypot(actual.x - 400000.0, static_cast<double>(actual.y));
    };
    for (const double damping : {0.3, 0.6, 1.0}) {
        const auto [job, jump] = settle(damping, 20000);
        const ScheduledJump& scheduled = job.jumps().at(0);
        // The samples are whole units: outside for sure beyond 100.5, perhaps from 99.5 on.
        std::uint64_t surelyOutside = 0, perhapsOutside = 0, passesInside = 0;
        for (std::uint64_t tick = scheduled.motionEndTick; tick < scheduled.nextMotionTick; tick += 640) {
            if (distance(job, tick) > 100.5) surelyOutside = tick - scheduled.motionEndTick;
            if (distance(job, tick) >= 99.5)
                perhapsOutside = tick - scheduled.motionEndTick;
            else if (passesInside == 0 && distance(job, tick + 640) > 100)
                passesInside = tick;
        }
        ASSERT_TRUE(jump.settled) << damping;
        EXPECT_GT(jump.settleUs * 64, static_cast<double>(surelyOutside)) << damping;
        EXPECT_LE(jump.settleUs * 64, static_cast<double>(perhapsOutside + 640)) << damping;
        EXPECT_EQ(jump.overshootUnits > 100, damping < 1) << damping;
        if (damping > 0.5) continue;
        ASSERT_GT(passesInside, 0U) << "the mirror rings through the band";
        const auto [shortJob, shortJump] =
            settle(damping, static_cast<double>(passesInside - scheduled.motionEndTick) / 64);
        EXPECT_LE(distance(shortJob, shortJob.jumps().at(0).nextMotionTick), 100)
            << "inside the band at the next motion";
        EXPECT_FALSE(shortJump.settled);
        EXPECT_NEAR(shortJump.settleUs, jump.settleUs, 1e-6) << "the mirror's motion until then is the same";
    }
}

// A pure-delay head puts the mirror where the command was a delay ago, so its laser edges follow by hand: a 2000
// unit line at 5 units/us behind a 250 us delay.
TEST(MirrorFigures, ThePureDelayHeadsLaserEdgesAreExact) {
    struct Case {
        double onUs, offUs, startMissing, endMissing, speedAtOn, speedAtOff;
    };
    for (const Case& c : {Case{250, 250, 0, 0, 1, 0}, Case{300, 200, 250, 250, 1, 1}, Case{200, 300, 0, 0, 0, 0}}) {
        JobSettings settings;
        settings.servo = {ServoKind::delay, 250, 1, 1};
        settings.timing.laserOnDelayUs = c.onUs;
        settings.timing.laserOffDelayUs = c.offUs;
        const MarkingJob job = jobOf("jump -1000 0\nmark 1000 0\n", settings);
        const MarkFigures mark = explainJob(job).mirror.marks.at(0);
        EXPECT_NEAR(mark.startMissing, c.startMissing, 1e-6) << c.onUs;
        EXPECT_NEAR(mark.endMissing, c.endMissing, 1e-6) << c.offUs;
        EXPECT_NEAR(mark.speedAtOn, c.speedAtOn, 1e-9) << c.onUs;
        EXPECT_NEAR(mark.speedAtOff, c.speedAtOff, 1e-9) << c.offUs;
        EXPECT_NEAR(mark.bestLaserOnDelayUs, 250, 1e-6);
        EXPECT_NEAR(mark.bestLaserOffDelayUs, 250, 0.1) << "the end point, rounded to whole units";
        EXPECT_NEAR(mark.startMissingAtBest, 0, 1e-6);
        EXPECT_NEAR(mark.endMissingAtBest, 0, 0.5);
    }
}

TEST(JumpTable, AJumpWaitsTheDelayOfTheFirstRowAsLongAsItAndABrokenTableNamesItsLine) {
    JobSettings settings;
    settings.timing.jumpDelayTable = parseJumpTable("# length delay\n\n1000 100\n  # longer\n100000 500\n", "t.txt");
    const MarkingJob job = jobOf("jump 1000 0\njump 2001 0\njump 302001 0\njump 302011 0\n", settings);
    std::vector<std::uint64_t> delays;
    for (std::size_t i = 0; i < 4; ++i)
        delays.push_back((job.jumps()[i].nextMotionTick - job.jumps()[i].motionEndTick) / 64);
    EXPECT_EQ(delays, (std::vector<std::uint64_t>{100, 500, 500, 100})) << "lengths 1000, 1001, 300000 and 10";

    std::string tooLong;
    for (int row = 1; row <= 257; ++row) tooLong += std::to_string(row) + " 10\n";
    const std::pair<std::string, const char*> cases[] = {
        {"1000 100\n500 200\n", "t.txt:2: the lengths must ascend: 500 follows 1000"},
        {"# c\n1000\n", "t.txt:2: a row is 'LENGTH DELAY_US', two numbers"},
        {"1000 100 # c\n", "t.txt:1: a row is 'LENGTH DELAY_US', two numbers"},
        {"1000 ten\n", "t.txt:1: the delay is not a number of us from 0 to 100000: 'ten'"},
        {"-5 10\n", "t.txt:1: the length is not a number of units from 0 on: '-5'"},
        {"\n# nothing\n", "t.txt: the table has no rows"},
        {tooLong, "t.txt:257: more than 256 rows"},
    };
    for (const auto& [text, message] : cases) {
        try {
            parseJumpTable(text, "t.txt");
            ADD_FAILURE() << "accepted: " << text;
        } catch (const JumpTableError& e) {
            EXPECT_STREQ(e.what(), message);
        }
    }
    EXPECT_THROW(readJumpTable("/"), JumpTableError) << "not a regular file";
}

TEST(SettingsFile, TheSuggestedSettingsReplaceTheCardsAndAnythingElseIsRefusedWhole) {
    CardTiming timing;
    applySettings(R"({"settings_of": "oltb analyze", "settings": {"laser_on_delay_us": {"suggested": 283},
                     "jump_delay_us": {"now": 2000, "suggested": null}, "mark_delay_us": {"suggested": 290}}})",
                  "s.json", timing);
    EXPECT_EQ(timing.laserOnDelayUs, 283);
    EXPECT_EQ(timing.jumpDelayUs, CardTiming{}.jumpDelayUs) << "no suggestion: the setting stays";
    EXPECT_EQ(timing.markDelayUs, 290);
    const std::pair<const char*, const char*> cases[] = {
        {"{\"settings\": {}}", "s.json: not a settings file of oltb analyze (--settings-out)"},
        {"[1, 2", "s.json: not a settings file of oltb analyze (--settings-out)"},
        {R"({"settings_of": "oltb analyze", "settings": {"laser_on_delay_us": {"suggested": 1}, "warp": {}}})",
         "s.json: unknown setting \"warp\""},
        {R"({"settings_of": "oltb analyze", "settings": {"mark_delay_us": {"suggested": -3}}})",
         "s.json: setting \"mark_delay_us\": the suggested value must be a number of us from 0 to 100000"},
    };
    for (const auto& [text, message] : cases) {
        CardTiming unchanged;
        try {
            applySettings(text, "s.json", unchanged);
            ADD_FAILURE() << "accepted: " << text;
        } catch (const SettingsFileError& e) {
            EXPECT_STREQ(e.what(), message);
        }
        EXPECT_EQ(unchanged.laserOnDelayUs, CardTiming{}.laserOnDelayUs) << "nothing applied from a refused file";
    }
}

// A 1 ms jump and its delay, then a polyline of two 1 ms segments around a corner: the gate, the power, the labels
// and the path stand where the delays put them; a laser-off delay beyond the mark delay holds the next command.
TEST(CardTiming, GateEdgesLabelsAndCornersSitWhereTheDelaysPutThem) {
    for (const auto& [markDelayUs, laserOffDelayUs, endLabelAfter] :
         {std::tuple{150.0, 80.0, 9600U}, {0.0, 333.0, 21760U}}) {
        JobSettings settings;
        settings.timing = {10000, 5000, 100, markDelayUs, 20, 123.5, laserOffDelayUs};
        settings.servo = {ServoKind::delay, 250, 1, 1};
        const MarkingJob job = jobOf("jump 10000 0\nlabel 5\nmark 10000 5000\nmark 15000 5000\nlabel 6\n", settings);
        constexpr std::uint64_t start = 64000 + 64000 + 6400;  // lead-in, jump, jump delay
        constexpr std::uint64_t corner = start + 64000;
        constexpr std::uint64_t end = corner + 1280 + 64000;  // polygon delay, second segment
        const std::uint64_t off = end + static_cast<std::uint64_t>(laserOffDelayUs * 64);
        std::vector<std::pair<std::uint64_t, std::uint32_t>> gate, power;
        for (const SignalChange& change : job.changesOf(oltbEventGate)) gate.emplace_back(change.tick, change.value);
        for (const SignalChange& change : job.changesOf(oltbEventLaserPower16))
            power.emplace_back(change.tick, change.value);
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
        {"jump 0 0\n\n  # a comment\nmrak 1 2\n",
         "job.txt:4: unknown command 'mrak' (jump, mark, arc, label, power, wait, speed)"},
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
}  // namespace oltb::sim
