#include "Progress.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "hxutil/IsoTime.h"

namespace hxagent {

OutputStyle DetectOutputStyle(bool json) {
    if (json) return OutputStyle::Json;
    return ::isatty(STDERR_FILENO) ? OutputStyle::Terminal : OutputStyle::Plain;
}

std::string FormatBytes(std::uint64_t bytes) {
    static const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1024 && u < 4) {
        v /= 1024;
        ++u;
    }
    char out[32];
    std::snprintf(out, sizeof out, "%.1f %s", v, units[u]);
    return out;
}

std::string FormatDuration(double seconds) {
    if (seconds < 0) seconds = 0;
    auto total = static_cast<long long>(seconds + 0.5);
    long long h = total / 3600, m = (total / 60) % 60, s = total % 60;
    char out[32];
    if (h > 0)
        std::snprintf(out, sizeof out, "%lld:%02lld:%02lld", h, m, s);
    else
        std::snprintf(out, sizeof out, "%lld:%02lld", m, s);
    return out;
}

std::string FormatProgressLine(const std::string& label, std::uint64_t done, std::uint64_t total, double elapsed,
                               int barWidth) {
    if (done > total) done = total;
    double fraction = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
    std::string line = label + " [";
    int filled = static_cast<int>(fraction * barWidth);
    line += std::string(static_cast<size_t>(filled), '#');
    line += std::string(static_cast<size_t>(barWidth - filled), ' ');
    char pct[16];
    std::snprintf(pct, sizeof pct, "] %3d%%", static_cast<int>(fraction * 100));
    line += pct;
    line += "  " + FormatBytes(done) + "/" + FormatBytes(total);
    if (elapsed >= 0.1 && done > 0) {
        double rate = static_cast<double>(done) / elapsed;
        line += "  " + FormatBytes(static_cast<std::uint64_t>(rate)) + "/s";
        line += "  ETA " + FormatDuration(static_cast<double>(total - done) / rate);
    }
    return line;
}

void Progress::Emit(const char* event, nlohmann::json fields) {
    fields["event"] = event;
    fields["time"] = hxutil::IsoUtc(std::chrono::system_clock::now(), hxutil::IsoPrecision::Millis);
    std::cerr << fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void Progress::Step(const std::string& text) {
    std::lock_guard lock(mutex_);
    if (style_ == OutputStyle::Json) return Emit("step", {{"message", text}});
    std::cerr << text << std::endl;
}

void Progress::Note(const std::string& text) {
    std::lock_guard lock(mutex_);
    if (style_ == OutputStyle::Json) return Emit("note", {{"message", text}});
    std::cerr << text << std::endl;
}

void Progress::Begin(const std::string& label, std::uint64_t total) {
    std::lock_guard lock(mutex_);
    label_ = label;
    total_ = total;
    done_ = 0;
    started_ = lastDraw_ = std::chrono::steady_clock::now();
    if (style_ == OutputStyle::Json) return Emit("begin", {{"label", label_}, {"done", 0}, {"total", total_}});
    if (style_ == OutputStyle::Plain) std::cerr << label_ << ": " << FormatBytes(total_) << std::endl;
}

void Progress::Update(std::uint64_t done) {
    std::lock_guard lock(mutex_);
    done_ = done;
    auto now = std::chrono::steady_clock::now();
    auto since = std::chrono::duration<double>(now - lastDraw_).count();
    if (style_ == OutputStyle::Json) {
        if (since < 1.0 || done >= total_) return;
        lastDraw_ = now;
        return Emit("progress", {{"label", label_}, {"done", done_}, {"total", total_}});
    }
    double elapsed = std::chrono::duration<double>(now - started_).count();
    if (style_ == OutputStyle::Terminal) {
        if (since < 0.1 && done < total_) return;
        lastDraw_ = now;
        std::cerr << "\r\033[K" << FormatProgressLine(label_, done_, total_, elapsed, 30) << std::flush;
    } else if (since >= 5.0 && done < total_) {
        lastDraw_ = now;
        std::cerr << FormatProgressLine(label_, done_, total_, elapsed, 20) << std::endl;
    }
}

void Progress::End(bool ok) {
    std::lock_guard lock(mutex_);
    if (style_ == OutputStyle::Json)
        return Emit("end", {{"label", label_}, {"done", done_}, {"total", total_}, {"ok", ok}});
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    if (style_ == OutputStyle::Terminal) std::cerr << "\r\033[K";
    std::cerr << FormatProgressLine(label_, done_, total_, elapsed, style_ == OutputStyle::Terminal ? 30 : 20)
              << (ok ? "" : "  FAILED") << std::endl;
}

}  // namespace hxagent
