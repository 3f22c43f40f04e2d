#include "table/xml_fatal.h"
#include "session/log.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace vukra::table {

namespace {

std::atomic<XmlFatalHandler> installed{nullptr};

} // namespace

XmlFatalHandler set_xml_fatal_handler(XmlFatalHandler handler) { return installed.exchange(handler); }

void xml_fatal(const char* message, int status) {
    if (XmlFatalHandler handler = installed.load()) handler(message, status);
    log::print("%s", message);
    std::exit(status);
}

} // namespace vukra::table
