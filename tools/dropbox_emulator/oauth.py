"""The OAuth 2 pages: /oauth2/authorize (Allow/Deny page or automatic answer)
and /oauth2/token (authorization_code and refresh_token grants).
"""

import base64
import hashlib
import html
import json
import secrets
import threading
import time
import urllib.parse

from reply import Reply

CODE_LIFETIME = 600
TOKEN_CTYPE = "text/javascript"
DENY_TEXT = "The user chose not to give your app access to their Dropbox account."


def token_error(error, description=None):
    body = {"error": error}
    if description is not None:
        body["error_description"] = description
    return Reply(400, json.dumps(body).encode(), TOKEN_CTYPE)


def page(status, title, inner):
    text = ("<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>%s</title></head>"
            "<body><h1>%s</h1>%s</body></html>" % (title, title, inner))
    return Reply(status, text.encode("utf-8"), "text/html; charset=utf-8")


def with_query(uri, params):
    sep = "&" if "?" in uri else "?"
    return uri + sep + urllib.parse.urlencode(params)


def redirect_page():
    """The plain page an app registers as its redirect address; the app reads the
    code from the browser's address, so the page itself only says so."""
    return page(200, "Dropbox", "<p>You can close this window and go back to the device.</p>")


class OAuth:
    def __init__(self, store):
        self.store = store
        self.lock = threading.Lock()
        self.codes = {}             # code -> grant details

    def _param(self, params, key):
        value = params.get(key)
        return value[0] if value else None

    def authorize(self, handler, body):
        store = self.store
        params = dict(handler.query)
        if handler.command == "POST":
            params.update(urllib.parse.parse_qs(body.decode("utf-8", "replace"), keep_blank_values=True))
        get = lambda k: self._param(params, k)
        if get("client_id") != store.app_key:
            return page(400, "Invalid client_id", "<p>The app key is not known.</p>")
        if get("response_type") != "code":
            return page(400, "Invalid response_type", "<p>Only response_type=code is supported.</p>")
        redirect = get("redirect_uri")
        allowed = store.settings.get("redirect_uris") or []
        if redirect is not None and allowed and redirect not in allowed:
            return page(400, "Invalid redirect_uri", "<p>It must exactly match one of the app's redirect URIs.</p>")
        state = get("state")
        decision = get("decision")
        account = get("account") or store.settings.get("oauth_account")
        mode = store.settings.get("oauth_mode", "page")
        if decision is None and handler.command == "GET" and mode in ("allow", "deny"):
            decision = mode
        if decision is None:
            return self._form(params)
        if decision == "deny":
            if redirect is None:
                return page(200, "Access denied", "<p>You can close this window.</p>")
            out = {"error": "access_denied", "error_description": DENY_TEXT}
            if state is not None:
                out["state"] = state
            return Reply(302, b"", None, [("Location", with_query(redirect, out))])
        if account not in store.accounts:
            account = next(iter(store.accounts), None)
            if account is None:
                return page(400, "No account", "<p>The emulator has no accounts.</p>")
        code = secrets.token_urlsafe(32)
        with self.lock:
            self.codes[code] = {"account": account, "redirect_uri": redirect, "expires": time.time() + CODE_LIFETIME,
                                "token_access_type": get("token_access_type"),
                                "code_challenge": get("code_challenge")}
        if redirect is None:
            return page(200, "Enter this code into your app", "<p><code>%s</code></p>" % html.escape(code))
        out = {"code": code}
        if state is not None:
            out["state"] = state
        return Reply(302, b"", None, [("Location", with_query(redirect, out))])

    def _form(self, params):
        hidden = "".join('<input type="hidden" name="%s" value="%s">' % (html.escape(k), html.escape(v[0]))
                         for k, v in params.items() if k not in ("decision", "account"))
        # The account signed in to the browser (oauth_account) comes preselected,
        # as the real page offers the signed-in user.
        signed_in = self.store.settings.get("oauth_account")
        options = "".join('<option value="%s"%s>%s</option>' % (html.escape(n), " selected" if n == signed_in else "",
                                                                html.escape(n))
                          for n in self.store.accounts)
        inner = ('<form method="post" action="/oauth2/authorize">%s'
                 '<p>Account: <select name="account">%s</select></p>'
                 '<p>The app would like to access the files and folders in your Dropbox.</p>'
                 '<button type="submit" name="decision" value="allow" id="allow">Allow</button> '
                 '<button type="submit" name="decision" value="deny" id="deny">Cancel</button>'
                 '</form>' % (hidden, options))
        return page(200, "API Request Authorization", inner)

    def token(self, handler, body):
        store = self.store
        if handler.command != "POST":
            return token_error("invalid_request", "Use POST")
        params = dict(handler.query)
        params.update(urllib.parse.parse_qs(body.decode("utf-8", "replace"), keep_blank_values=True))
        get = lambda k: self._param(params, k)
        client_id, secret = get("client_id"), get("client_secret")
        auth = handler.headers.get("Authorization") or ""
        if auth.lower().startswith("basic "):
            try:
                client_id, _, secret = base64.b64decode(auth[6:].strip()).decode("utf-8").partition(":")
            except (ValueError, UnicodeDecodeError):
                return token_error("invalid_client: Invalid client_id or client_secret")
        grant = get("grant_type")
        if grant not in ("authorization_code", "refresh_token"):
            return token_error("unsupported_grant_type",
                               None if grant else "No grant_type specified")
        if client_id != store.app_key:
            return token_error("invalid_client: Invalid client_id or client_secret")
        if grant == "refresh_token":
            if secret is not None and secret != store.app_secret:
                return token_error("invalid_client: Invalid client_id or client_secret")
            name = store.refresh_tokens.get(get("refresh_token") or "")
            if name is None:
                return token_error("invalid_grant", "refresh token is invalid or revoked")
            token, lifetime = self._issue(name)
            return self._reply({"token_type": "bearer", "access_token": token, "expires_in": lifetime})
        if secret is not None and secret != store.app_secret:
            return token_error("invalid_client: Invalid client_id or client_secret")
        code = get("code")
        if not code:
            return token_error("invalid_request", "No auth code specified")
        with self.lock:
            grant_info = self.codes.pop(code, None)
        if grant_info is None or grant_info["expires"] < time.time():
            return token_error("invalid_grant", "code doesn't exist or has expired")
        verifier = get("code_verifier")
        if grant_info["code_challenge"]:
            digest = base64.urlsafe_b64encode(hashlib.sha256((verifier or "").encode()).digest()).rstrip(b"=")
            if digest.decode() != grant_info["code_challenge"]:
                return token_error("invalid_grant", "invalid code verifier")
        elif secret != store.app_secret:
            return token_error("invalid_client: Invalid client_id or client_secret")
        if grant_info["redirect_uri"] != get("redirect_uri"):
            return token_error("invalid_grant", "redirect_uri mismatch")
        name = grant_info["account"]
        acct = store.accounts[name]
        token, lifetime = self._issue(name)
        out = {"uid": str(int(acct.namespace_id) % 1000000000), "access_token": token}
        if lifetime is not None:
            out["expires_in"] = lifetime
        out["token_type"] = "bearer"
        if grant_info["token_access_type"] == "offline":
            refresh = secrets.token_urlsafe(48)
            with store.lock:
                store.refresh_tokens[refresh] = name
                store.save()
            out["refresh_token"] = refresh
        out["account_id"] = acct.account_id
        return self._reply(out)

    def _issue(self, name):
        store = self.store
        if store.settings.get("legacy_tokens"):
            return store.issue_token(name), None
        lifetime = int(store.settings.get("token_lifetime") or 14400)
        return store.issue_token(name, lifetime, prefix="sl."), lifetime

    def _reply(self, obj):
        return Reply(200, json.dumps(obj).encode(), TOKEN_CTYPE)
