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

// Splits `text` at the logical operator `word` ("and", "or") where it stands between spaces
// outside quoted literals and parentheses, so that 'a and b' or any(x:...) stay whole.
std::vector<std::string> split_logical(const std::string& text, const std::string& word)
{
  std::vector<std::string> parts;
  bool quoted = false;
  int depth = 0;
  size_t from = 0;
  for (size_t i = 0; i < text.size(); ++i)
  {
    const char c = text[i];
    if (c == '\'')
      quoted = !quoted;  // a doubled quote flips twice and so stays inside
    else if (!quoted && c == '(')
      ++depth;
    else if (!quoted && c == ')')
      --depth;
    else if (!quoted && depth == 0 && c == ' ' && i + word.size() + 1 < text.size() &&
             ascii_lower(text.substr(i + 1, word.size())) == word && text[i + word.size() + 1] == ' ')
    {
      parts.push_back(text.substr(from, i - from));
      from = i + word.size() + 2;
      i = from - 1;
    }
  }
  parts.push_back(text.substr(from));
  return parts;
}

std::string find_property(const std::vector<std::string>& names, const std::string& name)
{
  for (const auto& p : names)
    if (ascii_lower(p) == ascii_lower(name))
      return p;
  return "";
}

}  // namespace

bool Odata_Filter::parse_clause(const std::string& part, const std::vector<std::string>& properties,
                                const Grammar& grammar, Clause& c, std::string& error) const
{
  static const std::regex clause_re(R"(\s*(\w+)\s+(eq|ne|gt|ge|lt|le)\s+('(?:[^']|'')*'|[^\s']+)\s*)",
                                    std::regex::icase);
  static const std::regex any_re(
    R"(\s*(\w+)/any\(\s*(\w+)\s*:\s*(\w+)\s+(eq|ne|gt|ge|lt|le)\s+('(?:[^']|'')*')\s*\)\s*)", std::regex::icase);
  std::smatch m;
  std::string name, literal;
  if (std::regex_match(part, m, any_re))
  {
    if (m[2].str() != m[3].str())
      return false;
    name = m[1].str();
    c.op = ascii_lower(m[4].str());
    literal = m[5].str();
    c.any = true;
    c.property = find_property(grammar.collections, name);
  }
  else if (std::regex_match(part, m, clause_re))
  {
    name = m[1].str();
    c.op = ascii_lower(m[2].str());
    literal = m[3].str();
    c.property = find_property(properties, name);
  }
  else
  {
    return false;
  }
  if (c.property.empty())
  {
    error = "Could not find a property named '" + name + "'.";
    return false;
  }
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
  return true;
}

bool Odata_Filter::parse(const std::string& text, const std::vector<std::string>& properties, std::string& error,
                         const Grammar& grammar)
{
  groups_.clear();
  error = "Invalid filter clause: '" + text + "'; exo-sim evaluates comparisons joined by 'and'" +
          (grammar.any_of_groups ? " or 'or'." : ".");
  const std::vector<std::string> alternatives =
    grammar.any_of_groups ? split_logical(text, "or") : std::vector<std::string>{text};
  for (const auto& alternative : alternatives)
  {
    std::vector<Clause> group;
    for (const auto& part : split_logical(alternative, "and"))
    {
      Clause c;
      if (!parse_clause(part, properties, grammar, c, error))
      {
        groups_.clear();
        return false;
      }
      group.push_back(c);
    }
    groups_.push_back(group);
  }
  error.clear();
  return !groups_.empty();
}

bool Odata_Filter::parse(const std::string& text, const std::vector<std::string>& properties, std::string& error)
{
  return parse(text, properties, error, Grammar());
}

bool Odata_Filter::holds(const Clause& c, const nlohmann::ordered_json& v)
{
  if (c.is_number)
    return v.is_number() && compare_T(v.get<double>(), c.op, c.number);
  if (c.is_string)
    return v.is_string() && compare_T(ascii_lower(v.get<std::string>()), c.op, ascii_lower(c.text));
  // a date: UTC ISO 8601 strings of one shape order as their times do
  return v.is_string() && compare_T(v.get<std::string>(), c.op, c.text);
}

bool Odata_Filter::matches(const nlohmann::ordered_json& entity) const
{
  if (groups_.empty())
    return true;
  for (const auto& group : groups_)
  {
    bool all = true;
    for (const auto& c : group)
    {
      auto it = entity.find(c.property);
      bool ok = false;
      if (it != entity.end() && c.any && it->is_array())
      {
        for (const auto& member : *it)
          ok = ok || holds(c, member);
      }
      else if (it != entity.end() && !c.any)
      {
        ok = holds(c, *it);
      }
      if (!ok)
      {
        all = false;
        break;
      }
    }
    if (all)
      return true;
  }
  return false;
}

std::vector<std::pair<std::string, std::string>> Odata_Filter::comparisons() const
{
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& group : groups_)
    for (const auto& c : group)
      out.emplace_back(c.property, c.op);
  return out;
}

}  // namespace exo_sim
