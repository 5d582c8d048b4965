// The value conversions run for every field of every place record on each refresh.
#include <benchmark/benchmark.h>

#include "foundation/format.h"
#include "foundation/value.h"
#include "tovrel/region.h"

namespace {

using tovrel::Json;

void BM_IntegerValueOfString(benchmark::State& state) {
    const Json value("1234567");
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovrel::integerValue(value));
    }
}
BENCHMARK(BM_IntegerValueOfString);

void BM_DoubleValueOfString(benchmark::State& state) {
    const Json value("48.1371539");
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovrel::doubleValue(value));
    }
}
BENCHMARK(BM_DoubleValueOfString);

void BM_DoubleValueOfNumber(benchmark::State& state) {
    const Json value(48.1371539);
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovrel::doubleValue(value));
    }
}
BENCHMARK(BM_DoubleValueOfNumber);

void BM_FormatF(benchmark::State& state) {
    double value = 48.1371539;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovrel::formatF(value));
        value += 1e-7;
    }
}
BENCHMARK(BM_FormatF);

void BM_TargetFromPlaceRecord(benchmark::State& state) {
    const Json record{{"centroidLat", 48.1},     {"centroidLon", 11.5},
                      {"centroidRadius", 150},   {"isLinked", 0},
                      {"dwellTime", "2"},        {"eventTypeId", 3},
                      {"endDate", "2030-01-01"}, {"eventId", "12"},
                      {"placeId", "7"},          {"campaignName", "Spring"},
                      {"tags", "food"},          {"startDate", "2020-01-01"},
                      {"alertText", "50% off"},  {"eventName", "Lunch"},
                      {"mediaType", "html"},     {"mediaURL", "http://m/1"},
                      {"mediaUrl", "http://m/1"}};
    for (auto _ : state) {
        benchmark::DoNotOptimize(tovrel::hRegion::fromPlaceRecord(record));
    }
}
BENCHMARK(BM_TargetFromPlaceRecord);

}  // namespace
