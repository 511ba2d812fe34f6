// The marking job as documented in --help: where the shapes lie, when the gate is on, how far the actual positions
// lag, and in which order the labels come.
#include "MarkingJob.h"

#include "api/oltb.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace oltbsim {
namespace {

constexpr std::int64_t kSample = MarkingJob::kSamplePeriodTicks;

TEST(MarkingJob, SquareIsMarkedThroughItsDocumentedCorners) {
    const MarkingJob job;
    const ShapeInfo& square = job.shapes().at(1);
    EXPECT_EQ(square.name, "square");
    EXPECT_EQ(square.startLabel, 12);
    EXPECT_EQ(square.endLabel, 13);

    std::vector<Point> corners;
    std::int64_t minX = 0, maxX = 0, minY = 0, maxY = 0;
    for (auto t = static_cast<std::int64_t>(square.markStartTick); t <= static_cast<std::int64_t>(square.markEndTick);
         t += kSample) {
        const Position3 p = job.commanded(0, t);
        minX = std::min(minX, p.x);
        maxX = std::max(maxX, p.x);
        minY = std::min(minY, p.y);
        maxY = std::max(maxY, p.y);
        if (std::abs(p.x) == 100000 && std::abs(p.y) == 100000) {
            corners.push_back({p.x, p.y});
        }
    }
    EXPECT_EQ(minX, -100000);
    EXPECT_EQ(maxX, 100000);
    EXPECT_EQ(minY, -100000);
    EXPECT_EQ(maxY, 100000);
    const std::vector<Point> expected = {{-100000, -100000}, {100000, -100000}, {100000, 100000},
                                         {-100000, 100000},  {-100000, -100000}};
    EXPECT_EQ(corners, expected) << "each corner reached on a sample, in the documented order";
}

TEST(MarkingJob, GateAndPowerAreOnExactlyWhileAShapeIsMarked) {
    const MarkingJob job;
    const std::uint16_t powers[] = {0x4000, 0x6000, 0x8000, 0xC000};
    ASSERT_EQ(job.shapes().size(), 4u);
    for (std::size_t k = 0; k < job.shapes().size(); ++k) {
        const ShapeInfo& shape = job.shapes()[k];
        EXPECT_EQ(shape.power, powers[k]);
        EXPECT_EQ(shape.markStartTick % kSample, 0u) << "gate edges fall on samples";
        EXPECT_EQ(job.valueAt(oltbEventGate, shape.markStartTick - 1), 0u);
        EXPECT_EQ(job.valueAt(oltbEventGate, shape.markStartTick), 1u);
        EXPECT_EQ(job.valueAt(oltbEventGate, shape.markEndTick - 1), 1u);
        EXPECT_EQ(job.valueAt(oltbEventGate, shape.markEndTick), 0u);
        EXPECT_EQ(job.valueAt(oltbEventLaserPower16, shape.markStartTick), shape.power);
        EXPECT_EQ(job.valueAt(oltbEventLaserPower1_16, shape.markStartTick), shape.power / 2u);
        EXPECT_EQ(job.valueAt(oltbEventLaserPower1, shape.markStartTick), 1u) << "any power shows on a 1-bit line";
        EXPECT_EQ(job.valueAt(oltbEventPortA, shape.markStartTick), 0x0001u | ((k + 1) << 8));
        const Position3 start = job.commanded(0, static_cast<std::int64_t>(shape.markStartTick));
        EXPECT_EQ((Point{start.x, start.y}), shape.startPoint);
    }
    // Between shapes the head jumps with the gate off.
    EXPECT_EQ(job.changesOf(oltbEventGate).size(), 8u);
}

TEST(MarkingJob, ActualPositionsAreTheCommandedOnesDelayed) {
    JobSettings settings;
    settings.servoDelayTicks = 300 * 64;
    const MarkingJob job(settings);
    for (std::int64_t t = 0; t < static_cast<std::int64_t>(job.cycleTicks()); t += 97 * kSample) {
        for (unsigned head = 0; head < 2; ++head) {
            const Position3 actual = job.actual(head, t);
            const Position3 commanded = job.commanded(head, t - 300 * 64);
            EXPECT_EQ(actual.x, commanded.x);
            EXPECT_EQ(actual.y, commanded.y);
            EXPECT_EQ(actual.z, commanded.z);
        }
    }
    const ShapeInfo& line = job.shapes().at(0);  // marked along +X at 5000 units/ms
    const auto midLine = static_cast<std::int64_t>((line.markStartTick + line.markEndTick) / 2);
    EXPECT_EQ(job.commanded(0, midLine).x - job.actual(0, midLine).x, 1500) << "following error of 300 us";
}

TEST(MarkingJob, HeadOneIsHeadZeroMirroredAndHalvedWithFocusCorrection) {
    const MarkingJob job;
    const auto t = static_cast<std::int64_t>(job.shapes().at(2).markStartTick);  // circle start (350000, 250000)
    const Position3 head0 = job.commanded(0, t);
    const Position3 head1 = job.commanded(1, t);
    EXPECT_EQ(head0.x, 350000);
    EXPECT_EQ(head0.y, 250000);
    EXPECT_EQ(head0.z, (350000LL * 350000 + 250000LL * 250000) >> 21);
    EXPECT_EQ(head1.x, -175000);
    EXPECT_EQ(head1.y, 125000);
}

TEST(MarkingJob, LabelsEncloseTheJobAndEachShapeInOrder) {
    const MarkingJob job;
    std::vector<std::uint16_t> numbers;
    for (const Label& label : job.labels()) {
        numbers.push_back(label.number);
    }
    EXPECT_EQ(numbers, (std::vector<std::uint16_t>{1, 10, 11, 12, 13, 14, 15, 16, 17, 2}));
    for (const ShapeInfo& shape : job.shapes()) {
        const auto isLabel = [](std::uint16_t n) { return [n](const Label& l) { return l.number == n; }; };
        const auto start = std::find_if(job.labels().begin(), job.labels().end(), isLabel(shape.startLabel));
        const auto end = std::find_if(job.labels().begin(), job.labels().end(), isLabel(shape.endLabel));
        EXPECT_EQ(start->tick, shape.markStartTick - 64);
        EXPECT_EQ(end->tick, shape.markEndTick + 64);
    }
    EXPECT_EQ(job.jobStartTick(), 64000u);
    EXPECT_GT(job.jobEndTick() - job.jobStartTick(), std::uint64_t{1} << 24) << "a run crosses a time base";
    EXPECT_EQ(job.cycleTicks() % kSample, 0u);
    EXPECT_GE(job.cycleTicks(), job.jobEndTick() + 50 * 64000);
    const Position3 home = job.commanded(0, static_cast<std::int64_t>(job.jobEndTick()));
    EXPECT_EQ(home.x, 0);
    EXPECT_EQ(home.y, 0);
}

}  // namespace
}  // namespace oltbsim
