#pragma once
// The part of OData's $filter the simulator's Graph listings evaluate: comparisons joined by `and`,
// as in Microsoft's examples (`type eq 'IPF.Appointment'`, `createdDateTime ge 2021-08-21 and
// createdDateTime lt 2021-09-16`). A comparison is `<property> eq|ne|gt|ge|lt|le <literal>`, where
// the literal is a quoted string (compared case-insensitively, as Exchange and the directory do), a
// number, or a date or date-time (compared with the property's UTC ISO 8601 value; a bare date means
// its midnight UTC). A grammar may further allow groups of those joined by `or` (`and` binding
// tighter) and, on the collection properties it names, the lambda `<collection>/any(x:x <op>
// <literal>)` that holds when one member compares true, as the users listing takes
// `proxyAddresses/any(x:x eq 'smtp:…')`. Anything else (not, functions, unknown properties) is
// refused at parse time rather than answered unfiltered.
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace exo_sim
{

class Odata_Filter
{
public:
  struct Grammar
  {
    bool any_of_groups = false;            // `or` between groups of `and`-joined comparisons
    std::vector<std::string> collections;  // string-collection properties taking `/any(x:x op literal)`
  };

  // False with `error` for an expression outside the subset above, or one naming a property
  // that is not in `properties` (nor in the grammar's collections).
  bool parse(const std::string& text, const std::vector<std::string>& properties, std::string& error,
             const Grammar& grammar);
  bool parse(const std::string& text, const std::vector<std::string>& properties, std::string& error);

  // True when `entity` (a JSON object holding the filtered properties) satisfies every comparison
  // of at least one group.
  bool matches(const nlohmann::ordered_json& entity) const;

  bool empty() const { return groups_.empty(); }

  // Each comparison's property (as the caller spelled it in `properties`) and operator, in the
  // order written, so that a service can refuse one it does not index.
  std::vector<std::pair<std::string, std::string>> comparisons() const;

private:
  struct Clause
  {
    std::string property;
    std::string op;
    std::string text;  // string literal, or a date normalised to yyyy-mm-ddThh:mm:ssZ
    double number = 0;
    bool is_number = false;
    bool is_string = false;
    bool any = false;  // a lambda over a collection of strings
  };

  bool parse_clause(const std::string& part, const std::vector<std::string>& properties, const Grammar& grammar,
                    Clause& c, std::string& error) const;
  static bool holds(const Clause& c, const nlohmann::ordered_json& value);

  std::vector<std::vector<Clause>> groups_;
};

}  // namespace exo_sim
