// Resource compilers since Qt 5.13 refer to this symbol of a Qt library that can decompress zlib.
// Qt 5.12 can, but does not have the symbol. With a definition of its own, of the same value, the
// program also starts with Qt 5.12. It is weak, since a statically linked Qt has its own.
extern __attribute__((weak)) const unsigned char qt_resourceFeatureZlib;
const unsigned char qt_resourceFeatureZlib = 0;
