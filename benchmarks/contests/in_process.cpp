// CRC and packet link, by Google Benchmark, which repeats and interleaves them itself.

#include "contests.h"

#include "../places.h"
#include "../process.h"

#include "common/files.h"

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace
{

using Samples = std::map<std::string, std::vector<double>>;

/// All repetitions of all benchmarks, by name, in nanoseconds.
Samples run_benchmarks(int rounds)
{
    const std::string report = scratch("report");
    time_command({(BENCH_PROJECT "/build/bench/benchmarks/bench_in_process"), "--benchmark_min_time=0.02",
                  "--benchmark_repetitions=" + std::to_string(rounds),
                  "--benchmark_enable_random_interleaving=true", "--benchmark_out=" + report,
                  "--benchmark_out_format=json"});
    Samples samples;
    const nlohmann::json result = nlohmann::json::parse(read_file(report));
    for (const nlohmann::json &run : result.at("benchmarks")) {
        if (run.value("error_occurred", false))
            throw std::runtime_error(run.at("name").get<std::string>() + ": " +
                                     run.at("error_message").get<std::string>());
        if (run.at("run_type") == "iteration")
            samples[run.at("run_name")].push_back(run.at("real_time"));
    }
    return samples;
}

} // namespace

void add_in_process_contests(std::vector<Contest> &contests, int rounds)
{
    // Measured all at once, when the first of them is asked for; each round takes the next repetition.
    const auto samples = std::make_shared<Samples>();
    const auto of = [=](const std::string &benchmark) {
        return [=, next = size_t{0}]() mutable {
            if (samples->empty())
                *samples = run_benchmarks(rounds);
            return samples->at(benchmark).at(next++);
        };
    };
    const auto crc = [&](const std::string &name, const std::string &bytes, double table_ratio_max,
                         std::optional<double> other_ratio_max) {
        contests.push_back({"CRC of " + name,
                            "ns",
                            {{"product", of("crc/product/" + bytes)},
                             {"256-entry table", of("crc/table/" + bytes), table_ratio_max},
                             {"Boost.CRC", of("crc/boost/" + bytes), other_ratio_max},
                             {"the form in kernels", of("crc/kernel/" + bytes), other_ratio_max}}});
    };
    crc("29 bytes", "29", 1 / 1.8, {});
    crc("64 KiB", "65536", 1 / 6.0, 1 / 6.0);
    crc("1 MiB", "1048576", 1 / 6.0, 1 / 6.0);
    contests.push_back(
        {"1 MiB through the packet link",
         "ns",
         {{"product", of("link/product")}, {"minimal loop, same CRC", of("link/minimal"), 1.4}}});
}
