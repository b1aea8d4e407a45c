// Resource compilers from Qt 5.13 on refer to this mark of a library that can expand zlib. Qt 5.12
// can, but has no mark: with one of its own, of the same value, the program starts there, too. It
// is weak, since a Qt that is linked into the program brings its own.
extern __attribute__((weak)) const unsigned char qt_resourceFeatureZlib;
const unsigned char qt_resourceFeatureZlib = 0;
