/// Processes, sockets and files for the tests of the host tier.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

/// A folder of a test's own, gone when the test is over.
struct ScratchFolder {
    std::string path;
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    std::string at(const std::string &name) const
    {
        return path + "/" + name;
    }
};

std::string content_of(const std::string &path);
void put_file(const std::string &path, const std::string &content);

/// How a process ended and what it printed.
struct Ended {
    int code; ///< exit code, or minus the signal
    std::string out;
    std::string err;
};

/// A program that runs beside the test. It is killed when it is still there at the end of the test.
class Process
{
  public:
    explicit Process(std::vector<std::string> words);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    /// Waits until it has ended by itself; kills it after `seconds` and tells so by code -1000.
    Ended end(double seconds = 20);
    /// Asks it to end (SIGTERM), and waits.
    Ended stop();
    /// What it has printed so far to standard output.
    std::string out() const;

  private:
    ScratchFolder files;
    pid_t process;
};

/// Runs qel-host with these words to its end.
Ended host(std::vector<std::string> words, double seconds = 20);

/// Starts qel-host beside the test.
std::vector<std::string> host_words(std::vector<std::string> words);

/// "00 ff 10" as bytes.
std::string bytes(const std::string &hex);
