# Floors. Each folder is compiled with an include path that holds its own folder and the ones it may use, nothing else:
# an include that points upward does not compile.

# veksys_floor(name FOLDERS folder... [USES floor...])
function(veksys_floor name)
  cmake_parse_arguments(floor "" "" "FOLDERS;USES" ${ARGN})
  set(view ${CMAKE_BINARY_DIR}/floors/${name})
  set(sources)
  foreach(folder ${floor_FOLDERS})
    file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp ${PROJECT_SOURCE_DIR}/${folder}/*.h)
    list(APPEND sources ${found})
    veksys_link_view(${view} ${folder})
  endforeach()
  add_library(veksys_${name} OBJECT ${sources})
  add_dependencies(veksys_${name} veksys_generated)
  target_include_directories(veksys_${name} PRIVATE ${PROJECT_SOURCE_DIR}/include ${VEKSYS_PUBLIC_GENERATED}
                             ${VEKSYS_PRIVATE_GENERATED} ${view})
  foreach(used ${floor_USES})
    target_include_directories(veksys_${name} PRIVATE ${CMAKE_BINARY_DIR}/floors/${used})
  endforeach()
  target_compile_definitions(veksys_${name} PRIVATE VEKSYS_MESSAGE_DIR="${CMAKE_INSTALL_FULL_DATADIR}/veksys/locale/en_US")
  target_link_libraries(veksys_${name} PRIVATE veksys_flags)
  set_property(GLOBAL APPEND PROPERTY VEKSYS_FLOORS veksys_${name})
endfunction()

# Makes <view>/<folder> lead to the source folder.
function(veksys_link_view view folder)
  get_filename_component(parent ${view}/${folder} DIRECTORY)
  file(MAKE_DIRECTORY ${parent})
  file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${view}/${folder} SYMBOLIC)
endfunction()

# Everything in one shared and one static library.
function(veksys_library)
  get_property(floors GLOBAL PROPERTY VEKSYS_FLOORS)
  set(objects)
  foreach(floor ${floors})
    list(APPEND objects $<TARGET_OBJECTS:${floor}>)
  endforeach()
  add_library(veksys SHARED ${objects})
  add_library(veksys_static STATIC ${objects})
  set_target_properties(veksys PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  set_target_properties(veksys_static PROPERTIES OUTPUT_NAME veksys)
  target_link_options(veksys PRIVATE -Wl,-z,nodelete -Wl,-z,now -Wl,-z,relro -Wl,-z,pack-relative-relocs
    -Wl,-Bsymbolic-functions)  # the library calls its own functions directly
  target_compile_definitions(veksys_static INTERFACE VEKSYS_STATIC)
  foreach(library veksys veksys_static)
    add_dependencies(${library} veksys_generated)
    target_link_libraries(${library} PRIVATE $<BUILD_INTERFACE:veksys_flags> PUBLIC Threads::Threads)
    target_compile_features(${library} PUBLIC cxx_std_20)
    target_include_directories(${library} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                               $<BUILD_INTERFACE:${VEKSYS_PUBLIC_GENERATED}> $<INSTALL_INTERFACE:include>)
    add_library(veksys::${library} ALIAS ${library})
  endforeach()
endfunction()
