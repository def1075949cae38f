// serve.h - one life of the broker: from the settings of the command line to the signal that ends it.
#ifndef TARN_BROKER_SERVE_H
#define TARN_BROKER_SERVE_H

#include "options.h"

namespace tarn::broker {

enum ExitStatus { kEnded = 0, kCannotServe = 1, kBadOption = 2 };

// Serves until SIGINT or SIGTERM; what went wrong is told on standard error.
ExitStatus serve(const Options &options);

} // namespace tarn::broker

#endif
