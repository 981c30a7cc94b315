// Uses the installed platform interface and contract headers and the library behind them.
#include <PluginInterfaces.h>
#include <ResultCodes.h>

#include <Base64.h>

#include <cstdio>
#include <sstream>
#include <string>

int main() {
    std::istringstream in("host");
    std::ostringstream out;
    long rc = lBase64::Encode(in, out, 4);
    bool ok = rc == 0 && out.str() == "aG9zdA==" &&
              std::string(PHONEHOME_PLUGIN_INTERFACE_NAME).find("feedback") != std::string::npos;
    std::printf("%s\n", ok ? "consumer ok" : "consumer FAILED");
    return ok ? 0 : 1;
}
