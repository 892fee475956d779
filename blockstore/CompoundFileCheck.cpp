#include "tesselzostream/CompoundFileCheck.h"

CheckReport CheckCompoundFile(const char* path, const char* password) {
  (void)path;
  (void)password;
  CheckReport report;
  report.openError = "not yet built";
  return report;
}
