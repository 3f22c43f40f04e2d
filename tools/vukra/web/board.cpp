#include "board.h"

namespace vukra::web {

namespace {

void add_event(Board& b, const std::string& kind, std::string data) {
    b.events.push_back(Event{++b.last_event, kind, std::move(data)});
    if (b.events.size() > kKeptEvents) b.events.pop_front();
    b.news.notify_all();
}

const char* access_text(const Entry& e) { return e.readable ? (e.writable ? "RW" : "R") : (e.writable ? "W" : ""); }

} // namespace

void fill(Board& b) {
    for (const table::TableInfo& t : table::tables()) {
        for (const auto& [reg, type] : table::registers_of(t)) {
            if (reg.name == nullptr || b.by_name.count(reg.name) != 0) continue;
            Entry e;
            e.reg = cli::Polled{reg.name, reg, type};
            e.table = t.name ? t.name : "";
            e.readable = (reg.access & table::kAccessRead) != 0;
            e.writable = (reg.access & table::kAccessWrite) != 0;
            e.last.name = reg.name;
            e.last.type = type.name ? type.name : "?";
            e.last.error = "not read yet";
            b.by_name[reg.name] = b.entries.size();
            b.entries.push_back(std::move(e));
        }
    }
}

const Entry* find(const Board& b, const std::string& name) {
    const auto it = b.by_name.find(name);
    return it == b.by_name.end() ? nullptr : &b.entries[it->second];
}

nlohmann::ordered_json entry_json(const Entry& e) {
    nlohmann::ordered_json j;
    j["name"] = e.reg.name;
    j["table"] = e.table;
    j["access"] = access_text(e);
    const nlohmann::ordered_json reading = cli::reading_object(e.last, e.time);
    for (const auto& [key, value] : reading.items()) j[key] = value;
    return j;
}

nlohmann::ordered_json entry_json_locked(const Board& b, std::size_t index) {
    const std::lock_guard<std::mutex> lock(b.mutex);
    return entry_json(b.entries[index]);
}

void record(Board& b, std::size_t index, const cli::Reading& r, const std::string& time) {
    const std::lock_guard<std::mutex> lock(b.mutex);
    Entry& e = b.entries[index];
    const bool changed = r.ok != e.last.ok || (r.ok ? r.value != e.last.value : r.error != e.last.error);
    e.last = r;
    e.time = time;
    if (changed) add_event(b, "value", cli::json_text(entry_json(e)));
}

void record_line(Board& b, bool up, const std::string& time) {
    const std::lock_guard<std::mutex> lock(b.mutex);
    if (b.line_known && b.line_up == up) return;
    b.line_known = true;
    b.line_up = up;
    nlohmann::ordered_json j;
    j["state"] = up ? "up" : "down";
    j["time"] = time;
    add_event(b, "line", cli::json_text(j));
}

bool events_after(Board& b, std::uint64_t id, std::vector<Event>& out, Clock::duration wait) {
    std::unique_lock<std::mutex> lock(b.mutex);
    b.news.wait_for(lock, wait, [&] { return b.closing || b.last_event > id; });
    for (const Event& e : b.events)
        if (e.id > id) out.push_back(e);
    return !b.closing;
}

void close(Board& b) {
    const std::lock_guard<std::mutex> lock(b.mutex);
    b.closing = true;
    b.news.notify_all();
}

} // namespace vukra::web
