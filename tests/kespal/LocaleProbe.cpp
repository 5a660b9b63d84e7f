// Prints where it finds its message catalogues; the locale tests put copies of it into many places.
#include <iostream>

#include "kespal/gettext.h"

int main() {
  std::string dir = "left from before";
  kes::findLocaleDir(dir);
  std::cout << dir;
}
