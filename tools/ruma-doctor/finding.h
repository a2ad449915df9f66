// What a check has found.
#ifndef RUMA_DOCTOR_FINDING_H
#define RUMA_DOCTOR_FINDING_H

#include <string>
#include <vector>

namespace doctor {

enum class Severity { ok, note, warning, error };

struct Finding {
    Severity severity;
    std::string what;   // what was looked at
    std::string found;  // how it stands
    std::string remedy; // what to do about it; empty when all is well
    std::string check;  // name of the check
};

// Collects findings. Texts are one line; the caller escapes foreign ones.
class Findings {
  public:
    // Those that follow are this check's.
    void begin(const std::string &check) { check_ = check; }

    void ok(const std::string &what, const std::string &found) {
        add(Severity::ok, what, found, {});
    }
    void note(const std::string &what, const std::string &found, const std::string &remedy) {
        add(Severity::note, what, found, remedy);
    }
    void warning(const std::string &what, const std::string &found, const std::string &remedy) {
        add(Severity::warning, what, found, remedy);
    }
    void error(const std::string &what, const std::string &found, const std::string &remedy) {
        add(Severity::error, what, found, remedy);
    }

    const std::vector<Finding> &list() const { return list_; }

  private:
    void add(Severity severity, const std::string &what, const std::string &found,
             const std::string &remedy) {
        list_.push_back({severity, what, found, remedy, check_});
    }

    std::string check_;
    std::vector<Finding> list_;
};

} // namespace doctor

#endif
