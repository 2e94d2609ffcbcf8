// Text files carry numbers with "." as the decimal point, whatever locale the user runs
// the program in: a German desktop must read and write the same files as everybody else.
#pragma once

#include <locale.h>

// While an object of this type lives, printf/scanf-family calls on the current thread
// use the "C" locale. The previous thread locale is restored on destruction.
class PcdScopedCLocale {
 public:
  PcdScopedCLocale() {
    c_locale_ = newlocale(LC_ALL_MASK, "C", locale_t{});
    if (c_locale_ != locale_t{}) previous_ = uselocale(c_locale_);
  }
  ~PcdScopedCLocale() {
    if (c_locale_ != locale_t{}) {
      uselocale(previous_);
      freelocale(c_locale_);
    }
  }
  PcdScopedCLocale(const PcdScopedCLocale&) = delete;
  PcdScopedCLocale& operator=(const PcdScopedCLocale&) = delete;

 private:
  locale_t c_locale_{};
  locale_t previous_{};
};
