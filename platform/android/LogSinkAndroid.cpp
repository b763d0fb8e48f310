// liblog has no in-process sink; tests run on the host backend.
#include "LogSink.h"

void tavo_log_set_sink(TavoLogSinkFunc, void*) {}
