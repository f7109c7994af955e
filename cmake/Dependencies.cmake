# Every dependency comes from the distribution; scripts/install-deps.sh installs them.
find_package(Threads REQUIRED)
find_package(TBB REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS serialization)
find_package(PkgConfig REQUIRED)

pkg_check_modules(LCMS2 REQUIRED IMPORTED_TARGET lcms2)
add_library(vorn::lcms2 ALIAS PkgConfig::LCMS2)

# Debian's imgproc package ships no CMake config, so OpenCV is located by hand.
find_path(OPENCV_INCLUDE_DIR opencv2/imgproc.hpp PATH_SUFFIXES opencv4 REQUIRED)
find_library(OPENCV_CORE_LIB opencv_core REQUIRED)
find_library(OPENCV_IMGPROC_LIB opencv_imgproc REQUIRED)
find_library(OPENCV_OBJDETECT_LIB opencv_objdetect REQUIRED)
add_library(vorn_opencv INTERFACE)
target_include_directories(vorn_opencv SYSTEM INTERFACE ${OPENCV_INCLUDE_DIR})
target_link_libraries(vorn_opencv INTERFACE ${OPENCV_OBJDETECT_LIB} ${OPENCV_IMGPROC_LIB}
                                            ${OPENCV_CORE_LIB})
add_library(vorn::opencv ALIAS vorn_opencv)

# Face detection reads the Haar cascades of Debian's opencv-data package at run time.
find_path(VORN_HAAR_CASCADE_DIR haarcascade_frontalface_default.xml
          PATHS /usr/share/opencv4/haarcascades /usr/share/opencv/haarcascades REQUIRED)

# Lens profiles: the library and its database of cameras and lenses.
pkg_check_modules(LENSFUN REQUIRED IMPORTED_TARGET lensfun)
add_library(vorn::lensfun ALIAS PkgConfig::LENSFUN)

# Presets and documents are JSON.
find_package(nlohmann_json 3.10 REQUIRED)

find_package(ZLIB REQUIRED)
pkg_check_modules(LIBDEFLATE REQUIRED IMPORTED_TARGET libdeflate)
add_library(vorn::libdeflate ALIAS PkgConfig::LIBDEFLATE)

# Magick++'s pkg-config flags carry -fopenmp, which vorn does not use and clang cannot honour
# without libomp; only its include folders, defines and libraries are kept.
pkg_check_modules(MAGICKPP REQUIRED Magick++)
list(FILTER MAGICKPP_CFLAGS_OTHER EXCLUDE REGEX "openmp")
add_library(vorn_magickpp INTERFACE)
target_include_directories(vorn_magickpp SYSTEM INTERFACE ${MAGICKPP_INCLUDE_DIRS})
target_compile_options(vorn_magickpp INTERFACE ${MAGICKPP_CFLAGS_OTHER})
target_link_libraries(vorn_magickpp INTERFACE ${MAGICKPP_LINK_LIBRARIES})
add_library(vorn::magickpp ALIAS vorn_magickpp)

# Raster input and output: EXIF and XMP, the JPEG fast path, and the streaming JPEG and TIFF
# encoders (libjpeg's scanline interface takes rows a band at a time and writes markers).
pkg_check_modules(EXIV2 REQUIRED IMPORTED_TARGET exiv2)
pkg_check_modules(TURBOJPEG REQUIRED IMPORTED_TARGET libturbojpeg)
pkg_check_modules(LIBJPEG REQUIRED IMPORTED_TARGET libjpeg)
pkg_check_modules(LIBTIFF REQUIRED IMPORTED_TARGET libtiff-4)
add_library(vorn::exiv2 ALIAS PkgConfig::EXIV2)
add_library(vorn::turbojpeg ALIAS PkgConfig::TURBOJPEG)
add_library(vorn::libjpeg ALIAS PkgConfig::LIBJPEG)
add_library(vorn::libtiff ALIAS PkgConfig::LIBTIFF)

# LibRaw's thread-safe build decodes raw files, one decoder object per decode. Its pkg-config
# flags carry -fopenmp for the same reason as Magick++'s; the library links its own libgomp.
pkg_check_modules(LIBRAW REQUIRED libraw_r)
add_library(vorn_libraw INTERFACE)
target_include_directories(vorn_libraw SYSTEM INTERFACE ${LIBRAW_INCLUDE_DIRS})
target_link_libraries(vorn_libraw INTERFACE ${LIBRAW_LINK_LIBRARIES})
add_library(vorn::libraw ALIAS vorn_libraw)
