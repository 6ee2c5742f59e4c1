#include "log.h"

int main() {
   Warning("Invalid number of arguments.\n");
   return 1;
}
