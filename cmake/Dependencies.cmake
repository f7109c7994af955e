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
add_library(vorn_opencv INTERFACE)
target_include_directories(vorn_opencv SYSTEM INTERFACE ${OPENCV_INCLUDE_DIR})
target_link_libraries(vorn_opencv INTERFACE ${OPENCV_IMGPROC_LIB} ${OPENCV_CORE_LIB})
add_library(vorn::opencv ALIAS vorn_opencv)
