-- The ssl table as scripts use it, checked against the openssl tool: digests,
-- ciphers, signatures, certificates, the TLS context's configuration, the
-- error words of wrong arguments, and the results of calls in a wrong order.
local ssl = SLB.ssl
local dir = os.tmpname()
os.remove(dir)
assert(os.execute("mkdir " .. dir))

local function fails(pattern, f, ...)
  local ok, err = pcall(f, ...)
  assert(not ok and tostring(err):find(pattern), tostring(err))
end
local function shell(command)  -- its standard output; it must succeed
  local pipe = io.popen("cd " .. dir .. " && " .. command)
  local out = pipe:read("*a")
  assert(pipe:close(), command)
  return out
end
local function write(name, bytes)
  local file = assert(io.open(dir .. "/" .. name, "wb"))
  file:write(bytes)
  file:close()
end
local function read(name)
  local file = assert(io.open(dir .. "/" .. name, "rb"))
  local bytes = file:read("*a")
  file:close()
  return bytes
end
local function hex(bytes)
  return (bytes:gsub(".", function(c) return ("%02x"):format(c:byte()) end))
end

shell("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=lua-test -keyout key.pem -out cert.pem 2>/dev/null")
shell("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=other -keyout other.key -out other.pem 2>/dev/null")

-- Constants scripts compare with.
assert(ssl.Cert.VALIDATION.OK == 0 and ssl.Cert.VALIDATION.ERR_CERT_HAS_EXPIRED == 10)
assert(ssl.Cert.VALIDATION.ERR_APPLICATION_VERIFICATION == 50)
assert(ssl.Context.SSL_OP.ALL == 2147486719 and ssl.Context.SSL_VERIFY.PEER == 1)

-- Digests equal the tool's, fed in pieces.
local data = ("0123456789abcdef"):rep(700) .. "\0tail"
write("data", data)
for _, name in ipairs({ "md5", "sha1", "sha256", "sha512" }) do
  local md = ssl.EvpMdCtx()
  assert(md:DigestInit(ssl.EvpMdCtx.GetDigestByName(name)) == 1)
  assert(md:DigestUpdate(data:sub(1, 993)) == 1 and md:DigestUpdate(data:sub(994)) == 1)
  local tool = shell("openssl dgst -" .. name .. " -r data"):match("^(%x+)")
  assert(hex(md:DigestFinal()) == tool, name)
end
assert(ssl.EvpMdCtx.GetDigestByName("md4") == nil and ssl.EvpCipherCtx.GetCipherByName("des-cbc") == nil)

-- AES-256-CBC both ways with the tool.
local key, iv = ("k"):rep(32), ("i"):rep(16)
local cipher = ssl.EvpCipherCtx()
assert(cipher:CipherInit(ssl.EvpCipherCtx.GetCipherByName("aes-256-cbc"), key, iv, true) == 1)
assert(cipher:GetKeyLength() == 32 and cipher:GetIvLength() == 16 and cipher:GetBlockSize() == 16)
write("sealed", cipher:EncryptUpdate(data) .. cipher:EncryptFinal())
local opts = (" -K %s -iv %s"):format(hex(key), hex(iv))
assert(shell("openssl enc -d -aes-256-cbc -in sealed" .. opts) == data)
shell("openssl enc -aes-256-cbc -in data -out tool-sealed" .. opts)
local back = ssl.EvpCipherCtx()
assert(back:CipherInit(ssl.EvpCipherCtx.GetCipherByName("aes-256-cbc"), key, iv, false) == 1)
assert(back:EncryptUpdate(read("tool-sealed")) .. back:EncryptFinal() == data)

-- Signatures both ways; a key read through the credentials door.
local pkey, encrypted, flag = SLB.cred.GetPrivateKey(read("key.pem"))
assert(pkey and encrypted == false and flag == false)
local signer = ssl.EvpPkey.New(pkey)
assert(signer:Bits() == 2048 and signer:Size() == 256)
local md = ssl.EvpMdCtx()
local sha256 = ssl.EvpMdCtx.GetDigestByName("sha256")
assert(signer:SignInit(md, sha256) and signer:SignUpdate(md, data))
write("sig", signer:SignFinal(md))
shell("openssl x509 -in cert.pem -pubkey -noout > pub.pem")
assert(shell("openssl dgst -sha256 -verify pub.pem -signature sig data"):find("Verified OK"))
shell("openssl dgst -sha256 -sign key.pem -out tool-sig data")
assert(signer:VerifyInit(md, sha256) and signer:VerifyUpdate(md, data))
assert(signer:VerifyFinal(md, read("tool-sig")))
local flipped = read("tool-sig"):gsub("^.", function(c) return string.char((c:byte() + 1) % 256) end)
assert(signer:VerifyInit(md, sha256) and signer:VerifyUpdate(md, data))
assert(signer:VerifyFinal(md, flipped) == false)

-- Certificates: fingerprint and names as the tool prints them.
local cert = assert(ssl.Cert.DecodeFile(dir .. "/cert.pem"))
local tool = shell("openssl x509 -in cert.pem -noout -fingerprint -sha1"):match("=(.-)\n")
assert(cert:GetFingerprint() == tool and cert:GetSubjectName() == "/CN=lua-test")
assert(cert:GetIssuerName() == cert:GetSubjectName())
local other = assert(ssl.Cert.DecodeFile(dir .. "/other.pem"))
assert(cert:CheckIfIssuedBy(cert) == 0 and other:CheckIfIssuedBy(cert) ~= 0)
assert(ssl.Cert.DecodeFile(dir .. "/none.pem") == nil)
assert(ssl.Cert.VerifyErrorString(10) == "certificate has expired")

-- The context: an ssl.Cert goes where an X509 is asked for; an EvpPkey does
-- not, and arrives as nothing.
local context = assert(ssl.Context.New(ssl.TLSv1_client_method()))
assert(ssl.Cert.IsValid(dir .. "/cert.pem", context) == ssl.Cert.VALIDATION.OK)
assert(ssl.Cert.IsValid(dir .. "/none.pem", context) == -1)
assert(context:AddCA(other) == 1 and context:GetCertStore() ~= nil)
local empty = ssl.EvpPkey()
assert(context:AddCA(empty) == 0)
ssl.ClearError()
assert(context:SetCipherList("HIGH:@SECLEVEL=0") == 0)
assert(ssl.GetLastError():find("insufficient security"))
ssl.ClearError()
assert(ssl.PeekLastError() == 0)
-- Options come back in the numbers scripts know.
local all = ssl.Context.SSL_OP.ALL
assert(bit32.band(context:SetOptions(all), all) == all)
context:SetVerify(ssl.Context.SSL_VERIFY.PEER)
assert(context:UseCertificateChainFile(dir .. "/cert.pem") and context:UsePrivateKey(pkey))
assert(context:UseCredentials(dir .. "/none.pem", "") ~= 0)
context:Delete()

-- Calls in a wrong order give their decided results.
local fresh = ssl.EvpMdCtx()
assert(fresh:DigestFinal() == "" and fresh:DigestUpdate("x") == 0 and fresh:GetMD() == nil)
assert(fresh:GetSize() == 0 and fresh:GetType() == 0)
fresh:SetFlags(0x100)
assert(fresh:TestFlags(0x100) == 0)
assert(fresh:DigestInit(sha256) == 1 and #fresh:DigestFinal() == 32)
local idle = ssl.EvpCipherCtx()
assert(idle:EncryptUpdate("x") == "" and idle:EncryptFinal() == "" and idle:GetBlockSize() == 0)
assert(idle:GetFlags() == 0 and idle:CipherInit(ssl.EvpCipherCtx.GetCipherByName("aes-256-cbc"), "short", iv, true) == 0)
assert(not empty:SignInit(nil, sha256) and empty:SignFinal(md) == "" and not empty:VerifyFinal(md, "x"))
assert(empty:Bits() == 0 and empty:AssignRSA(ssl.RsaKey()) == 0)
local rsa = ssl.RsaKey()
assert(rsa:Assign("c0ffee", "zz", nil, nil, nil) == false and not rsa:IsValid())
empty:Delete()

-- The error words of wrong arguments.
fails("Invalid object for this method", cert.CheckIfIssuedBy, cert, nil)
fails("Invalid object for this method", ssl.EvpMdCtx.DigestInit, cipher, sha256)
fails("Error number of arguments %(given 0 %-> expected 1%)", ssl.EvpMdCtx.GetDigestByName)
fails("String of PKCS7 binary data expected", ssl.PKCS7_Unwrap, {}, nil, nil, nil)
fails("Invalid object %- EVP_PKEY expected", ssl.PKCS7_Unwrap, "data")
fails("Invalid object %- X509 expected", ssl.PKCS7_Unwrap, "data", nil, cipher, nil)
local ok, content, digest, err = ssl.PKCS7_Unwrap(123, nil, nil, nil)
assert(ok == false and content == "" and digest == "" and err ~= "")
cert:Delete()
other:Delete()
signer:Delete()  -- pkey with it: one object under two names

os.execute("rm -rf " .. dir)
print("ssl_test passed")
