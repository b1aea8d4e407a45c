#ifndef COMPILEDSCREENS_H
#define COMPILEDSCREENS_H

// The compiled form of each screen: the bytes that qmlcachegen makes, under the names that it
// gives. NOLINTBEGIN(bugprone-reserved-identifier)
namespace QmlCacheGeneratedCode {
namespace _0x5f__main_qml {
extern const unsigned char qmlData[];
}
namespace _0x5f__show_qml {
extern const unsigned char qmlData[];
}
namespace _0x5f__TqButton_qml {
extern const unsigned char qmlData[];
}
namespace _0x5f__RectangleProgress_qml {
extern const unsigned char qmlData[];
}
} // namespace QmlCacheGeneratedCode
// NOLINTEND(bugprone-reserved-identifier)

#endif // COMPILEDSCREENS_H
