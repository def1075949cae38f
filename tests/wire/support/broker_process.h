// broker_process.h - the broker program as a black box: a process of its own, known by its port, its log and what the
// kernel says about it.
#ifndef TARN_TESTS_WIRE_BROKER_PROCESS_H
#define TARN_TESTS_WIRE_BROKER_PROCESS_H

#include "child.h"

#include <string>

namespace tarn::test {

struct BrokerOptions { // 0 and empty: the program's own default
    int         keep_alive_s    = 0;
    int         max_packet_size = 0;
    int         max_clients     = 0;
    std::string log_level       = "";
};

// Starts in the test's directory and serves once start() returns. The destructor stops it. A test that fails shows the
// end of its log.
class BrokerProcess {
public:
    static BrokerProcess start(const BrokerOptions &options = {});
    BrokerProcess(BrokerProcess &&) = default;
    ~BrokerProcess();

    void        stop();  // asks it to end and expects that it ends well
    void        crash(); // kills it
    pid_t       pid() const { return child_.pid(); }
    std::string log() const { return child_.output(); } // lines it has flushed so far

private:
    explicit BrokerProcess(const BrokerOptions &options);
    Child child_;
};

} // namespace tarn::test

#endif
