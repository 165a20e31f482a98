#ifndef APPS_BACKUP_AGENT_FLAG_READER_H
#define APPS_BACKUP_AGENT_FLAG_READER_H

#include <functional>
#include <string>
#include <vector>

// Reads the flags of one agent command (`--json`, `--set UUID`, `--mailbox A
// --mailbox B`, ...). Each flag is declared with the variable it fills; read()
// then walks the arguments once. `--help` and `-h` are always known and set the
// help variable given to the constructor. The variables are written as the
// arguments are read, so after a failure they hold what came before it.
// A plain value; the variables must outlive read().
class Flag_Reader
{
public:
  explicit Flag_Reader(bool& help) : help_(help) {}

  // A flag without a value: sets `target` to true.
  Flag_Reader& flag(const char* name, bool& target);
  // A flag with one value; given again, the last value counts.
  Flag_Reader& value(const char* name, std::string& target);
  // A flag that may be repeated: each value is appended.
  Flag_Reader& values(const char* name, std::vector<std::string>& target);
  // A flag whose value is a decimal number from `min` to `max`.
  Flag_Reader& number(const char* name, int& target, int min, int max);
  // A flag whose value is one of `choices`.
  Flag_Reader& choice(const char* name, std::string& target, const std::vector<std::string>& choices);

  // False with `error` (naming the argument, never its value) for an unknown
  // argument, a flag without its value or a value out of range.
  bool read(const std::vector<std::string>& args, std::string& error) const;

private:
  // Takes the flag's value (empty for a flag without one); false with `error`
  // for a value it refuses.
  typedef std::function<bool(const std::string& value, std::string& error)> Apply;
  struct Known_Flag
  {
    std::string name;
    bool takes_value;
    Apply apply;
  };
  Flag_Reader& add(const char* name, bool takes_value, Apply apply);

  bool& help_;
  std::vector<Known_Flag> known_;
};

#endif
