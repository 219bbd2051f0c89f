"""Makes of an interface definition what the Tcl broker (Debian: tcl-combat) wants to know of it.

    omniidl -p FOLDER_OF_THIS_FILE -b tcl_description port_service.idl > port_service.tcl
"""

from omniidl import idlast, idltype

SIMPLE = {
    idltype.tk_void: "void", idltype.tk_short: "short", idltype.tk_long: "long",
    idltype.tk_ushort: "unsigned short", idltype.tk_ulong: "unsigned long",
    idltype.tk_float: "float", idltype.tk_double: "double", idltype.tk_boolean: "boolean",
    idltype.tk_char: "char", idltype.tk_octet: "octet", idltype.tk_any: "any",
    idltype.tk_string: "string", idltype.tk_longlong: "long long",
    idltype.tk_ulonglong: "unsigned long long",
}


def words(*items):
    """A Tcl list."""
    return " ".join("{%s}" % item for item in items)


def type_name(kind):
    if isinstance(kind, idltype.Sequence):
        return words("sequence", type_name(kind.seqType()), kind.bound())
    if isinstance(kind, idltype.Declared):
        return kind.decl().repoId()
    return SIMPLE[kind.kind()]


def head(node):
    return words(node.repoId(), node.identifier(), "1.0")


def describe(node):
    """The descriptions of a declaration, one for each name it declares."""
    if isinstance(node, idlast.Module):
        return [words("module", head(node), every(node.definitions()))]
    if isinstance(node, idlast.Interface):
        return [words("interface", head(node), "", every(node.contents()))]
    if isinstance(node, idlast.Const):
        return [words("const", head(node), type_name(node.constType()), node.value())]
    if isinstance(node, idlast.Typedef):
        return [words("typedef", head(name), type_name(node.aliasType()))
                for name in node.declarators()]
    if isinstance(node, idlast.Struct):
        members = [words(name.identifier(), type_name(member.memberType()))
                   for member in node.members() for name in member.declarators()]
        return [words("struct", head(node), words(*members), "")]
    if isinstance(node, idlast.Operation):
        ways = ["in", "out", "inout"]
        parameters = [words(ways[each.direction()], each.identifier(),
                            type_name(each.paramType())) for each in node.parameters()]
        return [words("operation", head(node), type_name(node.returnType()),
                      words(*parameters), "")]
    raise NotImplementedError(type(node).__name__)


def every(nodes):
    return words(*(text for node in nodes for text in describe(node)))


def run(tree, _arguments):
    print("package require combat")
    print("combat::ir add {%s}" % every(tree.declarations()))
