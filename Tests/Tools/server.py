"""server.py PORT CERTIFICATE KEY FOLDER LOG: an https server for localhost that writes down, a line each, what it was
asked for and which clients refused its certificate."""
import http.server
import ssl
import sys

port, certificate, key, folder, log_name = sys.argv[1:]
log = open(log_name, "w", buffering=1)


class Handler(http.server.SimpleHTTPRequestHandler):
    def __init__(self, *arguments):
        super().__init__(*arguments, directory=folder)

    def log_message(self, text, *arguments):
        log.write(text % arguments + "\n")


class Server(http.server.ThreadingHTTPServer):
    def process_request_thread(self, request, client_address):
        try:
            request.do_handshake()
        except OSError as error:
            log.write(f"refused: {error}\n")
            self.shutdown_request(request)
            return
        super().process_request_thread(request, client_address)

    def handle_error(self, request, client_address):
        log.write(f"error: {sys.exc_info()[1]}\n")


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(certificate, key)
server = Server(("localhost", int(port)), Handler)
server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
server.serve_forever()
