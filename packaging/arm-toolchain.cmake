# Cross build for the machine's processor: 32-bit ARM with hardware floating point. The compiler, the
# libraries and the emulator are those of the build root that scripts/build-arm makes.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(DEBIAN_ARCHITECTURE armhf)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

# The emulator is named explicitly, so nothing has to be registered with the kernel. -L names a folder
# with the ARM version of files whose path is the same for both processors.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L /usr/lib/arm-guest)
