// report.h - results as Markdown tables and plots.
#ifndef TARN_BENCH_PERFORMANCE_REPORT_H
#define TARN_BENCH_PERFORMANCE_REPORT_H

#include "results.h"

#include <filesystem>
#include <string>
#include <vector>

namespace tarn::performance {

struct Report {
    std::vector<Contender>    contenders;
    std::vector<const Case *> cases;
    unsigned                  rounds = 0;
    Results                   results;
    std::vector<std::string>  faults; // what failed, a line each

    std::string
    text(const std::string &plots = {}) const; // the tables, with the plots from this folder if one is named
    std::string goals_text() const;            // a line for each goal and contender
    bool        draw(const std::filesystem::path &folder) const; // false: not all could be written
};

// Writes the tables between the marks in this file, which keeps what is around them, and draws the plots into the
// folder that is named like the file. A file that is not there is made. False with a message when it cannot be written.
bool write_report(const Report &report, const std::filesystem::path &file);

} // namespace tarn::performance

#endif
