"""Checks of route arguments, with the service's 400 message forms.

Each checker takes the decoded JSON and a `where` prefix ("request body: " for
RPC bodies, 'HTTP header "Dropbox-API-Arg": ' for content routes) and returns a
plain dict with defaults filled in, or raises BadInput.
"""

from errors import BadInput
from store import TIME_RE, json_type


class Field:
    def __init__(self, kind, default=None, required=False, lo=None, hi=None, struct=None):
        self.kind, self.default, self.required = kind, default, required
        self.lo, self.hi, self.struct = lo, hi, struct


def check_struct(value, fields, where):
    if not isinstance(value, dict):
        raise BadInput("%sexpected object, got %s" % (where, json_type(value)))
    for key in value:
        if key not in fields:
            raise BadInput("%sunknown field '%s'" % (where, key))
    out = {}
    for key, f in fields.items():
        if key not in value or (value[key] is None and not f.required):
            if f.required:
                raise BadInput("%smissing required field '%s'" % (where, key))
            out[key] = f.default
            continue
        out[key] = check_value(value[key], f, "%s%s: " % (where, key))
    return out


def check_value(v, f, where):
    if f.kind == "str":
        if not isinstance(v, str):
            raise BadInput("%sexpected string, got %s" % (where, json_type(v)))
    elif f.kind == "bool":
        if not isinstance(v, bool):
            raise BadInput("%sexpected boolean, got %s" % (where, json_type(v)))
    elif f.kind == "uint":
        if isinstance(v, bool) or not isinstance(v, int):
            raise BadInput("%sexpected integer, got %s" % (where, json_type(v)))
        lo = 0 if f.lo is None else f.lo
        hi = (1 << 64) - 1 if f.hi is None else f.hi
        if not lo <= v <= hi:
            raise BadInput("%s%d is not within range [%d, %d]" % (where, v, lo, hi))
    elif f.kind == "time":
        if not isinstance(v, str) or not TIME_RE.match(v):
            raise BadInput("%stime data %r does not match format '%%Y-%%m-%%dT%%H:%%M:%%SZ'" % (where, v))
    elif f.kind == "struct":
        return check_struct(v, f.struct, where)
    elif f.kind == "list":
        if not isinstance(v, list):
            raise BadInput("%sexpected list, got %s" % (where, json_type(v)))
        if f.hi is not None and len(v) > f.hi:
            raise BadInput("%shas more than %d items" % (where, f.hi))
        if f.struct is None:  # a list of paths, each checked by its route
            return v
        return [check_struct(item, f.struct, "%sitem %d: " % (where, i)) for i, item in enumerate(v)]
    elif f.kind == "mode":
        return check_mode(v, where)
    elif f.kind == "session_type":
        name = v if isinstance(v, str) else v.get(".tag") if isinstance(v, dict) else None
        if name not in ("sequential", "concurrent"):
            raise BadInput("%sunknown tag '%s'" % (where, name))
        return name
    elif f.kind == "any":
        pass
    return v


def check_mode(v, where):
    if isinstance(v, str):
        v = {".tag": v}
    if not isinstance(v, dict) or not isinstance(v.get(".tag"), str):
        raise BadInput("%sexpected union, got %s" % (where, json_type(v)))
    name = v[".tag"]
    if name in ("add", "overwrite"):
        return name
    if name == "update":
        rev = v.get("update")
        if not isinstance(rev, str):
            raise BadInput("%supdate: missing required field" % where)
        return {".tag": "update", "update": rev}
    raise BadInput("%sunknown tag '%s'" % (where, name))


COMMIT = {
    "path": Field("any", required=True),
    "mode": Field("mode", default="add"),
    "autorename": Field("bool", default=False),
    "client_modified": Field("time"),
    "mute": Field("bool", default=False),
    "property_groups": Field("any"),
    "strict_conflict": Field("bool", default=False),
}

SESSION_CURSOR = {
    "session_id": Field("str", required=True),
    "offset": Field("uint", required=True),
}

FINISH = {
    "cursor": Field("struct", required=True, struct=SESSION_CURSOR),
    "commit": Field("struct", required=True, struct=COMMIT),
    "content_hash": Field("str"),
}

LIST_FOLDER = {
    "path": Field("any", required=True),
    "recursive": Field("bool", default=False),
    "include_media_info": Field("bool", default=False),
    "include_deleted": Field("bool", default=False),
    "include_has_explicit_shared_members": Field("bool", default=False),
    "include_mounted_folders": Field("bool", default=True),
    "limit": Field("uint", lo=1, hi=2000),
    "shared_link": Field("any"),
    "include_property_groups": Field("any"),
    "include_non_downloadable_files": Field("bool", default=True),
    "include_restorable_info": Field("bool", default=False),
}

ROUTE_ARGS = {
    "files/list_folder": LIST_FOLDER,
    "files/list_folder/continue": {"cursor": Field("str", required=True)},
    "files/create_folder": {"path": Field("any", required=True), "autorename": Field("bool", default=False)},
    "files/create_folder_batch": {"paths": Field("list", required=True, hi=10000),
                                  "autorename": Field("bool", default=False),
                                  "force_async": Field("bool", default=False)},
    "files/create_folder_batch/check": {"async_job_id": Field("str", required=True)},
    "files/delete": {"path": Field("any", required=True), "parent_rev": Field("str")},
    "auth/token/from_oauth1": {"oauth1_token": Field("str", required=True),
                               "oauth1_token_secret": Field("str", required=True)},
    "files/download": {"path": Field("any", required=True), "rev": Field("str")},
    "files/upload": dict(COMMIT, content_hash=Field("str")),
    "files/upload_session/start": {"close": Field("bool", default=False),
                                   "session_type": Field("session_type"),
                                   "content_hash": Field("str")},
    "files/upload_session/append_v2": {"cursor": Field("struct", required=True, struct=SESSION_CURSOR),
                                       "close": Field("bool", default=False),
                                       "content_hash": Field("str")},
    "files/upload_session/finish": FINISH,
    "files/upload_session/finish_batch_v2": {"entries": Field("list", required=True, struct=FINISH, hi=1000)},
}
