#pragma once

// The verbs of rpktool. Each takes the arguments after the verb and returns
// the process exit code: 0 success, 1 failure, 2 bad usage.

#include <string>
#include <vector>

namespace rpktool {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

int RunMake(const std::vector<std::string>& args);
int RunExtractPublicKey(const std::vector<std::string>& args);
int RunInfo(const std::vector<std::string>& args);
int RunVerify(const std::vector<std::string>& args);

// Prints "rpktool <verb>: <message>" to stderr.
void ReportError(const std::string& verb, const std::string& message);

}  // namespace rpktool
