// libkivreg.so is kivreg_core linked whole; its version script keeps only the
// KivReg functions visible. This unit exists because a shared library target
// needs a source of its own.
