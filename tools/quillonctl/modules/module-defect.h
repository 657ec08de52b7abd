/// Why a module does not load.
#ifndef QUILLON_QUILLONCTL_MODULE_DEFECT_H
#define QUILLON_QUILLONCTL_MODULE_DEFECT_H

#include <string>

namespace quillon {

/// Looks a library of the module directory over again that the registry could not use. The plug-in
/// is loaded for it, and asked for its package identifier when it gets as far as that.
///
/// @param libName  its library name
/// @return a phrase for people, "it has no entry doUpdate" for instance
std::string defectOf(const std::string& libName);

}  // namespace quillon

#endif
