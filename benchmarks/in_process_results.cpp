// Runs bench_in_process once a round and takes its figures from Google Benchmark's report.

#include "contests.h"
#include "process.h"
#include "trees.h"

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

static double nanoseconds_of(const std::string &benchmark)
{
    const std::string report = scratch("report");
    const std::string program = BENCH_PROJECT "/build/bench/benchmarks/bench_in_process";
    run_command({program, "--benchmark_filter=^" + benchmark + "$", "--benchmark_min_time=0.05",
                 "--benchmark_out=" + report, "--benchmark_out_format=json"});
    std::ifstream file(report);
    const nlohmann::json result = nlohmann::json::parse(file).at("benchmarks").at(0);
    if (result.value("error_occurred", false))
        throw std::runtime_error(benchmark + ": " + result.at("error_message").get<std::string>());
    return result.at("real_time");
}

static Contender in_process(const std::string &name, const std::string &benchmark, double ratio_max = 0)
{
    return {name, [benchmark] { return nanoseconds_of(benchmark); }, ratio_max};
}

static Contest crc_contest(const std::string &name, const std::string &bytes, double ratio_max,
                           double other_ratio_max)
{
    return {"CRC of " + name,
            "ns",
            {in_process("product", "crc/product/" + bytes),
             in_process("256-entry table", "crc/table/" + bytes, ratio_max),
             in_process("Boost.CRC", "crc/boost/" + bytes, other_ratio_max),
             in_process("the form in kernels", "crc/kernel/" + bytes, other_ratio_max)}};
}

void add_in_process_contests(std::vector<Contest> &contests)
{
    contests.push_back(crc_contest("29 bytes", "29", 1 / 1.8, 0));
    contests.push_back(crc_contest("64 KiB", "65536", 1 / 6.0, 1 / 6.0));
    contests.push_back(crc_contest("1 MiB", "1048576", 1 / 6.0, 1 / 6.0));
    contests.push_back(
        {"1 MiB through the packet link",
         "ns",
         {in_process("product", "link/product"), in_process("minimal loop, same CRC", "link/minimal", 1.4)}});
}
