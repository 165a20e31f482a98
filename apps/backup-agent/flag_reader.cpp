#include "apps/backup-agent/flag_reader.h"

#include <cstdlib>

Flag_Reader& Flag_Reader::add(const char* name, bool takes_value, Apply apply)
{
  known_.push_back(Known_Flag{name, takes_value, std::move(apply)});
  return *this;
}

Flag_Reader& Flag_Reader::flag(const char* name, bool& target)
{
  return add(name, false,
             [&target](const std::string&, std::string&)
             {
               target = true;
               return true;
             });
}

Flag_Reader& Flag_Reader::value(const char* name, std::string& target)
{
  return add(name, true,
             [&target](const std::string& value, std::string&)
             {
               target = value;
               return true;
             });
}

Flag_Reader& Flag_Reader::values(const char* name, std::vector<std::string>& target)
{
  return add(name, true,
             [&target](const std::string& value, std::string&)
             {
               target.push_back(value);
               return true;
             });
}

Flag_Reader& Flag_Reader::number(const char* name, int& target, int min, int max)
{
  const std::string flag = name;
  return add(name, true,
             [&target, min, max, flag](const std::string& value, std::string& error)
             {
               char* end = nullptr;
               const long n = std::strtol(value.c_str(), &end, 10);
               if (value.empty() || *end != '\0' || n < min || n > max)
               {
                 error = flag + " takes a number from " + std::to_string(min) + " to " + std::to_string(max);
                 return false;
               }
               target = static_cast<int>(n);
               return true;
             });
}

Flag_Reader& Flag_Reader::choice(const char* name, std::string& target, const std::vector<std::string>& choices)
{
  const std::string flag = name;
  return add(name, true,
             [&target, choices, flag](const std::string& value, std::string& error)
             {
               for (const std::string& c : choices)
                 if (c == value)
                 {
                   target = value;
                   return true;
                 }
               error = flag + " takes ";
               for (size_t c = 0; c < choices.size(); ++c)
                 error += (c == 0 ? "" : c + 1 == choices.size() ? " or " : ", ") + choices[c];
               return false;
             });
}

bool Flag_Reader::read(const std::vector<std::string>& args, std::string& error) const
{
  for (size_t i = 0; i < args.size(); ++i)
  {
    const std::string& arg = args[i];
    if (arg == "--help" || arg == "-h")
    {
      help_ = true;
      continue;
    }
    const Known_Flag* known = nullptr;
    for (const Known_Flag& s : known_)
      if (s.name == arg)
        known = &s;
    if (known == nullptr)
    {
      // Only the part before "=": a value glued to a flag may be a secret.
      error = "unexpected argument " + arg.substr(0, arg.find('='));
      return false;
    }
    if (known->takes_value && i + 1 >= args.size())
    {
      error = arg + " needs a value";
      return false;
    }
    if (!known->apply(known->takes_value ? args[++i] : std::string(), error))
      return false;
  }
  return true;
}
