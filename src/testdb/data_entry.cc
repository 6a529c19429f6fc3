#include "testdb/data_entry.h"

#include <vector>

#include "common/text_conventions.h"

namespace tavrix {

namespace {

bool AllDigits(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

int DaysIn(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

}  // namespace

std::optional<Micros> ParseEntryDate(std::string_view text) {
  text = trim(text);
  std::vector<std::string_view> parts;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == '-' || text[i] == '/' || text[i] == '.') {
      parts.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  if (parts.size() != 3) return std::nullopt;
  for (auto part : parts) {
    if (!AllDigits(part) || part.size() > 4) return std::nullopt;
  }
  if (parts[0].size() > 2 || parts[1].size() > 2 || parts[2].size() == 3) return std::nullopt;
  const int day = std::stoi(std::string(parts[0]));
  const int month = std::stoi(std::string(parts[1]));
  int year = std::stoi(std::string(parts[2]));
  if (parts[2].size() <= 2) year += year < 30 ? 2000 : 1900;
  if (year < 100 || month < 1 || month > 12 || day < 1 || day > DaysIn(year, month)) {
    return std::nullopt;
  }
  CivilTime c;
  c.year = year;
  c.month = month;
  c.day = day;
  return fromCivil(c);
}

DataEntryAnswer ParseDataEntryAnswer(std::string_view answer, Micros today) {
  DataEntryAnswer result;
  const size_t bar = answer.find('|');
  const std::string_view choice = trim(answer.substr(0, bar));
  if (upperCase(choice) == upperCase(kCancel)) {
    result.cancelled = true;
    return result;
  }
  if (upperCase(choice) != upperCase(kAccept)) {
    result.message = "The data entry answer must begin with Accept or Cancel, not \"" +
                     std::string(choice) + "\"";
    return result;
  }
  CivilTime day = toCivil(today);
  day.hour = day.minute = day.second = day.micros = 0;
  result.entry.testDate = fromCivil(day);
  std::string_view rest =
      bar == std::string_view::npos ? std::string_view() : answer.substr(bar + 1);
  while (!rest.empty()) {
    const size_t next = rest.find('|');
    const std::string_view field = rest.substr(0, next);
    rest = next == std::string_view::npos ? std::string_view() : rest.substr(next + 1);
    if (trim(field).empty()) continue;
    const size_t equals = field.find('=');
    const std::string name = lowerCase(trim(field.substr(0, equals)));
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : field.substr(equals + 1);
    if (name == "serial") {
      result.entry.serialNumber = value;
    } else if (name == "date") {
      const auto date = ParseEntryDate(value);
      if (!date) {
        result.message = kMsgInvalidDate;
        return result;
      }
      result.entry.testDate = *date;
    } else if (name == "operator") {
      result.entry.operators = trim(value);
    } else if (name == "description") {
      result.entry.description = value;
    } else {
      result.message = std::string(kMsgUnknownField) + name +
                       " (the fields are serial, date, operator and description)";
      return result;
    }
  }
  result.accepted = true;
  return result;
}

}  // namespace tavrix
