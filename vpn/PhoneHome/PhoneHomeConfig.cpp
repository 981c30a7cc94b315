#include "PhoneHomeConfig.h"

namespace phonehome {
const char* const kInstallDir = PW_INSTALL_DIR;
const char* const kProductVersion = PW_PRODUCT_VERSION;
const char* const kDefaultServerURL = PW_FEEDBACK_URL;
}  // namespace phonehome
