#pragma once
// The part of OData's $filter the Graph mailbox listings evaluate: comparisons joined by `and`,
// as in Microsoft's examples (`type eq 'IPF.Appointment'`, `createdDateTime ge 2021-08-21 and
// createdDateTime lt 2021-09-16`). A comparison is `<property> eq|ne|gt|ge|lt|le <literal>`, where
// the literal is a quoted string (compared case-insensitively, as Exchange does), a number, or a
// date or date-time (compared with the property's UTC ISO 8601 value; a bare date means its
// midnight UTC). Anything else (or, not, functions, unknown properties) is refused at parse time
// rather than answered unfiltered.
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace exo_sim
{

class Odata_Filter
{
public:
  // False with `error` for an expression outside the subset above, or one naming a property
  // that is not in `properties`.
  bool parse(const std::string& text, const std::vector<std::string>& properties, std::string& error);

  // True when `entity` (a JSON object holding the filtered properties) satisfies every comparison.
  bool matches(const nlohmann::ordered_json& entity) const;

  bool empty() const { return clauses_.empty(); }

private:
  struct Clause
  {
    std::string property;
    std::string op;
    std::string text;  // string literal, or a date normalised to yyyy-mm-ddThh:mm:ssZ
    double number = 0;
    bool is_number = false;
    bool is_string = false;
  };

  std::vector<Clause> clauses_;
};

}  // namespace exo_sim
