# ostrel_protobuf_messages(name path/to/Schema.proto): a static library of the classes that protoc makes of a schema,
# included as "path/to/Schema.pb.h". Its warnings are not ours. Beside the classes lies Schema.desc, the descriptors.
#
# The classes are those of the lite runtime, whose library is a quarter of the whole one and knows no descriptors. Only
# one of the two runtimes may be in a program: a target that needs descriptors sets OSTREL_FULL_PROTOBUF and gets the
# whole one, which serves the lite classes as well.
function(ostrel_protobuf_messages name schema)
  set(generated "${CMAKE_BINARY_DIR}/generated")
  cmake_path(REMOVE_EXTENSION schema OUTPUT_VARIABLE stem)
  file(MAKE_DIRECTORY "${generated}")
  add_custom_command(
    OUTPUT "${generated}/${stem}.pb.cc" "${generated}/${stem}.pb.h" "${generated}/${stem}.desc"
    COMMAND protobuf::protoc "--proto_path=${CMAKE_SOURCE_DIR}" "--cpp_out=lite:${generated}"
            "--descriptor_set_out=${generated}/${stem}.desc" "${schema}"
    DEPENDS "${CMAKE_SOURCE_DIR}/${schema}" protobuf::protoc
    VERBATIM)
  add_library(${name} STATIC "${generated}/${stem}.pb.cc" "${generated}/${stem}.pb.h")
  target_compile_options(${name} PRIVATE -w)
  target_include_directories(${name} SYSTEM PUBLIC "${generated}")
  target_link_libraries(${name} PUBLIC
    $<IF:$<BOOL:$<TARGET_PROPERTY:OSTREL_FULL_PROTOBUF>>,protobuf::libprotobuf,protobuf::libprotobuf-lite>
    Threads::Threads)
  set_property(TARGET ${name} PROPERTY OSTREL_DESCRIPTORS "${generated}/${stem}.desc")
endfunction()
