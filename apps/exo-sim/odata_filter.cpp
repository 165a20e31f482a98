#include "apps/exo-sim/odata_filter.h"

#include <cstdlib>
#include <regex>

#include "apps/exo-sim/ascii_case.h"

namespace exo_sim
{

namespace
{

// "2021-08-21" -> "2021-08-21T00:00:00Z"; "2021-08-21T10:00:00Z" and "...T10:00Z" likewise; false
// for anything else.
bool normalise_date(const std::string& text, std::string& out)
{
  static const std::regex date(R"((\d{4}-\d{2}-\d{2})(?:T(\d{2}:\d{2})(:\d{2})?(?:\.\d+)?Z?)?)");
  std::smatch m;
  if (!std::regex_match(text, m, date))
    return false;
  out = m[1].str() + "T" + (m[2].matched ? m[2].str() : "00:00") + (m[3].matched ? m[3].str() : ":00") + "Z";
  return true;
}

template <typename T_>
bool compare_T(const T_& a, const std::string& op, const T_& b)
{
  if (op == "eq")
    return a == b;
  if (op == "ne")
    return !(a == b);
  if (op == "gt")
    return b < a;
  if (op == "ge")
    return !(a < b);
  if (op == "lt")
    return a < b;
  return !(b < a);  // le
}

}  // namespace

bool Odata_Filter::parse(const std::string& text, const std::vector<std::string>& properties, std::string& error)
{
  static const std::regex clause_re(R"(\s*(\w+)\s+(eq|ne|gt|ge|lt|le)\s+('(?:[^']|'')*'|[^\s']+)\s*)",
                                    std::regex::icase);
  static const std::regex and_re(R"(\s+and\s+)", std::regex::icase);
  clauses_.clear();
  error = "Invalid filter clause: '" + text + "'; exo-sim evaluates comparisons joined by 'and'.";
  std::sregex_token_iterator it(text.begin(), text.end(), and_re, -1), end;
  for (; it != end; ++it)
  {
    std::string part = *it;
    std::smatch m;
    if (!std::regex_match(part, m, clause_re))
      return false;
    Clause c;
    c.op = ascii_lower(m[2].str());
    for (const auto& p : properties)
      if (ascii_lower(p) == ascii_lower(m[1].str()))
        c.property = p;
    if (c.property.empty())
    {
      error = "Could not find a property named '" + m[1].str() + "'.";
      return false;
    }
    std::string literal = m[3].str();
    if (literal.front() == '\'')
    {
      c.is_string = true;
      c.text = std::regex_replace(literal.substr(1, literal.size() - 2), std::regex("''"), "'");
    }
    else if (!normalise_date(literal, c.text))
    {
      char* stop = nullptr;
      c.number = std::strtod(literal.c_str(), &stop);
      if (!stop || *stop != '\0')
        return false;
      c.is_number = true;
    }
    clauses_.push_back(c);
  }
  error.clear();
  return !clauses_.empty();
}

bool Odata_Filter::matches(const nlohmann::ordered_json& entity) const
{
  for (const auto& c : clauses_)
  {
    auto it = entity.find(c.property);
    if (it == entity.end())
      return false;
    const auto& v = *it;
    bool ok = false;
    if (c.is_number)
      ok = v.is_number() && compare_T(v.get<double>(), c.op, c.number);
    else if (c.is_string)
      ok = v.is_string() && compare_T(ascii_lower(v.get<std::string>()), c.op, ascii_lower(c.text));
    else  // a date: UTC ISO 8601 strings of one shape order as their times do
      ok = v.is_string() && compare_T(v.get<std::string>(), c.op, c.text);
    if (!ok)
      return false;
  }
  return true;
}

}  // namespace exo_sim
