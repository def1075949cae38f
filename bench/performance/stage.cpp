#include "stage.h"

#include "ids.h"
#include "link.h"
#include "support/isolation.h"

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace tarn::performance {
namespace {

constexpr double kStarts_s = 10;

// Like tarn-broker, which tells errors alone.
constexpr char kQuiet[] = "log_type error\nlog_type warning\n";

bool is_answered()
{
    Links links;
    Link &link = links.add();
    return links.open(link, "127.0.0.1") &&
           links.ask(link, test::connect_packet(4, crowd_id(), {}), beside::kConnack) &&
           (link.queue(test::disconnect_packet(4)), link.flush());
}

} // namespace

Stage::Stage(const Contender &contender, bool shortened, int output)
    : contender_(contender), shortened_(shortened), output_(output)
{
}

std::unique_ptr<beside::Broker> Stage::start(const std::vector<std::string> &options)
{
    if (started_ == 0)
        test::isolate_process();
    else if (!test::enter_new_network())
        return nullptr;
    const std::string directory = std::to_string(started_++);
    std::filesystem::create_directory(directory);
    std::filesystem::current_path(directory);

    std::vector<std::string> words = contender_.options;
    if (contender_.is_tarn())
        words.insert(words.end(), options.begin(), options.end());
    auto broker = std::make_unique<beside::Broker>(
        beside::BrokerOptions{.tarn_broker = contender_.program, .more = words, .settings = kQuiet});
    std::filesystem::current_path("..");
    const double start_s = beside::now_s();
    while (!is_answered()) {
        if (broker->has_ended() || beside::now_s() > start_s + kStarts_s)
            return nullptr;
        usleep(20000);
    }
    return broker;
}

void Stage::put(const std::string &metric, double value)
{
    dprintf(output_, "%s %.17g\n", metric.c_str(), value);
}

void Stage::fail(const std::string &why)
{
    dprintf(output_, "! %s\n", why.c_str());
}

} // namespace tarn::performance
