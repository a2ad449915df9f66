// One scriptable procedure of a fake. Left alone it does what the fake documents for it; a test
// changes that with
//
//     call.returns(-1, EAGAIN).returns(-1);   // the next two results; then as before
//     call.at(3, -1);                         // the third call from now on
//     call.always(-1, ENOMEM);                // every call
//     call.does([](int a, char *b) { ... });  // every call, with all arguments
//     call.normal();                          // as the fake documents it again
//     call.passes_through();                  // intercepted procedures: the real one
//
// A second value is what errno is set to. call.count() is the number of calls since the reset.
#ifndef FAKES_CALL_H
#define FAKES_CALL_H

#include <cerrno>
#include <deque>
#include <functional>
#include <map>
#include <utility>

namespace fakes {

template <class Signature>
class Call;

template <class R, class... A>
class Call<R(A...)> {
  public:
    using Action = std::function<R(A...)>;

    explicit Call(Action normal, Action real = nullptr)
        : normal_(std::move(normal)), real_(std::move(real)) {}

    Call &returns(R result, int error = 0) {
        queue_.push_back(give(result, error));
        return *this;
    }
    Call &at(int nth, R result, int error = 0) {
        nth_[count_ + nth] = give(result, error);
        return *this;
    }
    void always(R result, int error = 0) { scripted_ = give(result, error); }
    void does(Action action) { scripted_ = std::move(action); }
    void passes_through() { scripted_ = real_ ? real_ : normal_; }
    void normal() {
        scripted_ = nullptr;
        queue_.clear();
        nth_.clear();
    }
    int count() const { return count_; }

    R operator()(A... arguments) {
        ++count_;
        Action action = scripted_ ? scripted_ : normal_;
        if (auto found = nth_.find(count_); found != nth_.end()) {
            action = found->second;
        } else if (!queue_.empty()) {
            action = queue_.front();
            queue_.pop_front();
        }
        return action(arguments...);
    }

  private:
    static Action give(R result, int error) {
        return [result, error](A...) {
            if (error != 0)
                errno = error;
            return result;
        };
    }

    Action normal_;
    Action real_;
    Action scripted_;
    std::deque<Action> queue_;
    std::map<int, Action> nth_;
    int count_ = 0;
};

} // namespace fakes

#endif
