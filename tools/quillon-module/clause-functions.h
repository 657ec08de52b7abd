/// The clauses' functions; clauses.cpp has the sentence that each of them holds a module to.
#pragma once

#include <string>

namespace quillon::kit {

class Module;

std::string holdFile(Module& module);
std::string holdArchitecture(Module& module);
std::string holdLibraries(Module& module);
std::string holdSymbols(Module& module);
std::string holdEntries(Module& module);
std::string holdExecutableMemory(Module& module);
std::string holdUnprivileged(Module& module);
std::string holdContext(Module& module);
std::string holdIdentifier(Module& module);
std::string holdVersion(Module& module);
std::string holdStickEntries(Module& module);
std::string holdUnique(Module& module);
std::string holdImageName(Module& module);
std::string holdInfo(Module& module);
std::string holdInfoVersion(Module& module);
std::string holdNeed(Module& module);
std::string holdExpectedTime(Module& module);
std::string holdExports(Module& module);
std::string holdSameVersion(Module& module);
std::string holdQuickQueries(Module& module);
std::string holdStickUpdate(Module& module);
std::string holdPackageUpdate(Module& module);
std::string holdRemembered(Module& module);
std::string holdHonestTime(Module& module);
std::string holdMissingFile(Module& module);
std::string holdEmptyPayload(Module& module);
std::string holdNoise(Module& module);
std::string holdEmptyVersion(Module& module);
std::string holdOverlongVersion(Module& module);
std::string holdArgumentPointer(Module& module);
std::string holdVersionPointer(Module& module);
std::string holdPayloadBounds(Module& module);
std::string holdPayloadPointer(Module& module);
std::string holdPathPointer(Module& module);
std::string holdQueriesMeanwhile(Module& module);
std::string holdThreads(Module& module);
std::string holdChildren(Module& module);
std::string holdDescriptors(Module& module);
std::string holdSignals(Module& module);
std::string holdWorkingDirectory(Module& module);
std::string holdUnloading(Module& module);
std::string holdSameAnswers(Module& module);
std::string holdOlderVersion(Module& module);
std::string holdProgress(Module& module);
std::string holdNoOffer(Module& module);
std::string holdEndOfRun(Module& module);
std::string holdSilent(Module& module);

}  // namespace quillon::kit
