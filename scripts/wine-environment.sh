# Sourced: the settings under which Windows programs run here. NORVEXDX_CACHE is set by the caller.
# Silent, but for exceptions that not even a handler of last resort gets: they end a program without a word.
export WINEDEBUG=${WINEDEBUG:--all,err+seh}
# No .NET and no HTML engine: Wine would want to download them.
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
# Wine's Direct3D 12 otherwise makes each shader-visible heap cost half a gigabyte.
export VKD3D_CONFIG=${VKD3D_CONFIG:-virtual_heaps}
# Software drivers only, and their compiled shaders kept: results do not depend on the machine's
# graphics card.
export VK_DRIVER_FILES=/usr/share/vulkan/icd.d/lvp_icd.json
export LIBGL_ALWAYS_SOFTWARE=1
export MESA_SHADER_CACHE_DIR=$NORVEXDX_CACHE/shaders
