# Builds the library and the examples that the demo shows. The demo sources this file.
# shellcheck shell=bash disable=SC2154

# cached NAME: prints a setting from the configuration of the library.
cached() {
    sed -n "s/^$1:[A-Z]*=//p" "$folder/CMakeCache.txt"
}
# build_project SOURCE FOLDER [CMAKE ARGUMENT]...: builds a project that uses the library.
build_project() {
    quietly cmake -S "$1" -B "$2" -G Ninja -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_PREFIX_PATH="$folder/stage" -DCMAKE_CXX_COMPILER="$(cached CMAKE_CXX_COMPILER)" \
        -DCMAKE_CXX_FLAGS="${sanitize:+-fsanitize=$sanitize}" -DZARIP_WERROR="$(cached ZARIP_WERROR)" "${@:3}"
    quietly cmake --build "$2"
}

# build: builds the library if necessary, installs it in $folder/stage and builds the examples.
build() {
    if [ -z "$built" ]; then
        echo "Building the library in $folder"
        mkdir -p "$folder"
        configure release "$folder"
        quietly cmake --build "$folder" --target zarip zarip-bus
    fi
    folder=$(cd "$folder" && pwd)
    sanitize=$(cached ZARIP_SANITIZE)
    echo "Building the examples against the library installed in $folder/stage"
    # Files that are not installed any more and the settings of another build must not remain.
    rm -rf "$folder/stage" "$folder"/{examples,illuminator}/CMakeCache.txt
    quietly cmake --install "$folder" --prefix "$folder/stage"
    build_project examples "$folder/examples" -DZARIP_TEST_ROUTES=ON
    build_project examples/illuminator "$folder/illuminator" -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON
    cp "$folder/illuminator/illuminator" "$folder/examples"
}
