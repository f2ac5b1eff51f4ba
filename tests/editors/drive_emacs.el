;;; Debugs orders.py in Emacs with dape, as a user does: by the commands that keys are bound to.  -*- lexical-binding: t -*-

;; emacs --batch -l drive_emacs.el      in the environment: ORDERS, the file; CONFIGURATION, the user's own settings

;; Prints what it has seen, one line for each thing; exit status 1 when something does not come.

(require 'cl-lib)
(require 'dape)

(defun wait-for (what find)
  "Return what FIND returns, as soon as that is not nil; WHAT says what it is."
  (let ((end (+ (float-time) 60)) found)
    (while (not (setq found (funcall find)))
      (when (> (float-time) end)
        (error "%s did not come" what))
      (accept-process-output nil 0.05))
    found))

(defun stopped ()
  (dape--live-connection 'stopped t))

(defun line-of-stop ()
  (when-let* ((connection (stopped))
              (frame (dape--current-stack-frame connection)))
    (plist-get frame :line)))

(defun rows-of-scope (name)
  "The names and values of the variables of the scope NAME, as lists."
  (let (rows (connection (stopped)))
    (when-let* ((frame (dape--current-stack-frame connection)))
      (dape--with-request (dape--scopes connection frame)
        (when-let* ((scope (cl-find name (plist-get frame :scopes) :test #'equal
                                    :key (lambda (each) (plist-get each :name)))))
          (dape--with-request (dape--variables connection scope)
            (setq rows (mapcar (lambda (each) (list (plist-get each :name) (plist-get each :value)))
                               (plist-get scope :variables)))))))
    (wait-for "variables" (lambda () rows))))

(load (getenv "CONFIGURATION") nil t)
(setq dape-start-hook nil                    ; a batch has no windows, and nobody who answers
      kill-buffer-query-functions nil)
(find-file (getenv "ORDERS"))
(goto-char (point-min))
(search-forward "total = sum")
(dape-breakpoint-toggle)
(message "a breakpoint is set")

(dape (dape--config-eval 'brixdebug nil))
(wait-for "a stop" (lambda () (equal (line-of-stop) 10)))
(let* ((connection (stopped))
       (thread (dape--current-thread connection))
       names)
  (dape--with-request (dape--stack-trace connection thread 10)
    (setq names (mapcar (lambda (each) (plist-get each :name)) (plist-get thread :stackFrames))))
  (wait-for "the stack" (lambda () names))
  (cl-assert (equal (seq-take names 2) '("price" "sell")) t)
  (message "the stack is shown"))
(cl-assert (equal (rows-of-scope "Locals") '(("order" "{'tea': 4.5, 'cake': 3.25}"))))
(message "variables are shown")

(dape-next (stopped))
(wait-for "the end of the step" (lambda () (equal (line-of-stop) 11)))
(cl-assert (member '("total" "7.75") (rows-of-scope "Locals")))
(message "a step shows what it has assigned")

(dape-quit)
(wait-for "the end" (lambda () (not (dape--live-connection 'parent t))))
(message "the session ends")
