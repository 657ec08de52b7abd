/// What standard output is connected to.
#ifndef QUILLON_QUILLONCTL_TERMINAL_H
#define QUILLON_QUILLONCTL_TERMINAL_H

namespace quillon {

/// Whether standard output is a terminal that can draw a line over.
bool canRedraw();

/// Columns of that terminal; 80 when they are not known.
int terminalWidth();

}  // namespace quillon

#endif
