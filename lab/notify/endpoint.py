"""An HTTP endpoint that writes each event it takes to a file before it answers.

    endpoint.py PORT FILE MODE

While the file MODE exists, it answers with 503.
"""

import http.server
import json
import os
import sys

PORT, RECEIVED, MODE = int(sys.argv[1]), sys.argv[2], sys.argv[3]


class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers['Content-Length']))
        if os.path.exists(MODE):
            self.send_error(503)
            return
        lines = ''.join(json.dumps(event) + '\n' for event in json.loads(body)['events'])
        with open(RECEIVED, 'a', encoding='utf-8') as file:
            file.write(lines)
        self.send_response(200)
        self.send_header('Content-Length', '0')
        self.end_headers()

    def log_message(self, *_):
        pass


class Server(http.server.HTTPServer):
    allow_reuse_address = True


Server(('127.0.0.1', PORT), Handler).serve_forever()
