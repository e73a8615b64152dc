# qb_unity(TARGET): the target's C++ sources compiled as one translation unit, so that the heavy headers
# (nlohmann-json above all, GoogleTest, sd-bus) are parsed and their templates instantiated once per
# target instead of once per file. The unity file is our own and includes the sources by paths
# relative to itself, so that its text, and with it the ccache key, is the same in every clone (CMake's
# own unity files name the sources by absolute path). A target of one source is left as it is.
function(qb_unity target)
  get_target_property(source_dir ${target} SOURCE_DIR)
  get_target_property(binary_dir ${target} BINARY_DIR)
  get_target_property(listed ${target} SOURCES)
  set(sources)
  foreach(source ${listed})
    if(source MATCHES "\\.cpp$")
      get_filename_component(source ${source} ABSOLUTE BASE_DIR ${source_dir})
      list(APPEND sources ${source})
    endif()
  endforeach()
  list(LENGTH sources count)
  if(count LESS 2)
    return()
  endif()
  set(unity ${binary_dir}/${target}_unity.cpp)
  set(text "// generated: every source of ${target}, one translation unit\n")
  foreach(source ${sources})
    file(RELATIVE_PATH relative ${binary_dir} ${source})
    string(APPEND text "#include \"${relative}\"\n")
  endforeach()
  file(CONFIGURE OUTPUT ${unity} CONTENT "${text}")
  set_source_files_properties(${sources} DIRECTORY ${source_dir} PROPERTIES HEADER_FILE_ONLY ON)
  target_sources(${target} PRIVATE ${unity})
  # a type in an anonymous namespace is fine, also when its file is included into the unity file
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endfunction()
