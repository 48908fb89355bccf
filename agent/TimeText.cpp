#include "agent/TimeText.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace Agent {

std::string utcText(double t) {
  if (!(t >= 0 && t < 253402300800.0)) return {};
  double const whole = std::floor(t);
  auto const seconds = static_cast<time_t>(whole);
  auto const millis = static_cast<int>(std::min(999.0, std::floor((t - whole) * 1000)));
  tm utc{};
  if (!gmtime_r(&seconds, &utc)) return {};
  char text[96];
  std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, millis);
  return text;
}

void putTime(nlohmann::json& object, std::string const& key, double t) {
  bool const known = t > 0 && std::isfinite(t);
  object[key] = known ? nlohmann::json(t) : nlohmann::json(nullptr);
  object[key + "Utc"] = known ? nlohmann::json(utcText(t)) : nlohmann::json(nullptr);
}

}  // namespace Agent
